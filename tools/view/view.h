#pragma once
// The bytes of a capacity disk or of a component as their disk group sees them.

#include <cstdint>
#include <functional>
#include <memory>

#include "component.h"
#include "disk_group.h"

namespace tool {

/// Read-only bytes. One thread at a time per disk group.
class View {
 public:
  struct Run {
    uint64_t offset;  // bytes
    uint64_t length;
    bool hole;    // nothing lies there: it reads as zeros
    bool beyond;  // its place is past the disk's end: it cannot be read, and may be as long as a forged map says
  };
  using TakeRun = std::function<void(const Run&)>;

  virtual ~View() = default;
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  /// Bytes.
  uint64_t size() const { return size_; }
  /// False when damage hides how far the bytes go: `size` then tells how many could be found.
  bool whole() const { return whole_; }

  /// Reads bytes within the view. A status of the library; after a failure the buffer holds anything.
  virtual uint32_t Read(void* buffer, uint32_t length, uint64_t offset) = 0;

  /// Calls `take` for runs that cover a range within the view, in order and without gaps; what cannot be told apart is
  /// no hole.
  virtual void ForEachRun(uint64_t offset, uint64_t length, const TakeRun& take);

 protected:
  View() = default;

  uint64_t size_ = 0;
  bool whole_ = true;
};

/// Reads what can be read of a range within the view, block of 4096 bytes by block where need be.
///
/// @param bad  told of every range that could not be read; it is zero in the buffer.
void ReadAround(View& view, uint8_t* buffer, uint64_t length, uint64_t offset,
                const std::function<void(uint64_t offset, uint64_t length, uint32_t status)>& bad);

/// The bytes that a disk's translation map can map, by its superblock: 225 blocks of 4096 bytes for each of its own.
/// Throws a Failure for a disk that has none.
uint64_t LogicalSize(const KABDiskCtx& disk);

/// A capacity disk's data area, or the logical bytes of its dedup layer. The log must be replayed before it is read;
/// the group must outlive the view. Throws a Failure for any other disk.
std::unique_ptr<View> ViewOfDisk(KABDiskCtx* disk);

/// A component from its superblock on. Needs a replayed log, and replays the LLOG, too; the group must outlive the
/// view. Throws a Failure when it cannot be opened.
std::unique_ptr<View> ViewOfComponent(DiskGroup& group, const Component& component);

}  // namespace tool
