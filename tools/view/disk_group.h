#pragma once
// Opening the disks that the arguments name, and choosing one of them.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "exit_codes.h"
#include "kab/core.h"
#include "keys.h"
#include "log_relay.h"

namespace tool {

struct GroupOptions {
  std::string ssd;
  std::vector<std::string> disks;
  bool skipUnmountCheck = false;
  std::string disk;  // --disk, when the command has it

  std::vector<std::string> Paths() const {
    std::vector<std::string> paths = {ssd};
    paths.insert(paths.end(), disks.begin(), disks.end());
    return paths;
  }
};

/// A capacity disk that does not open.
struct Refusal {
  std::string path;
  std::string reason;
  Exit code;
};

/// The opened group; closed in order at the end. `options` must outlive it, since contexts borrow their paths.
class DiskGroup {
 public:
  /// What becomes of a capacity disk that does not open.
  using TakeRefusal = std::function<void(const Refusal&)>;

  /// Opens everything read-only. Throws a Failure for what does not open, except for capacity disks that
  /// `takeRefusal` takes: the group goes on without them.
  ///
  /// @param log       whose stream was given to KABInit: what kind of failure it is stands there alone.
  /// @param keyFiles  UUID=FILE each.
  DiskGroup(LogRelay& log, const std::vector<std::string>& keyFiles, const GroupOptions& options,
            const TakeRefusal& takeRefusal = {});

  KABDiskCtx* ssd() { return ssd_.get(); }
  /// In the order of the arguments; some may be attached to no slot (type 11).
  const std::vector<KABDiskCtx*>& disks() const { return disks_; }
  /// SSD first.
  std::vector<KABDiskCtx*> All();
  /// The disk that --disk names: "ssd", a slot number, a UUID or a path. Without it the only capacity disk, or the
  /// SSD when there is none.
  KABDiskCtx* Chosen();

 private:
  struct Close {
    void operator()(KABDiskCtx* ctx) const noexcept;
  };
  using Opened = std::unique_ptr<KABDiskCtx, Close>;

  Opened Open(LogRelay& log, const std::string& path, bool isSsd);

  const GroupOptions& options_;
  KeyFiles keys_;
  Opened ssd_;
  std::vector<Opened> owned_;  // behind the SSD: they go first
  std::vector<KABDiskCtx*> disks_;
};

/// Chooses the checkpoint record and replays the PLOG. Throws a Failure when there is none or it cannot be replayed.
void ReplayLog(DiskGroup& group);

}  // namespace tool
