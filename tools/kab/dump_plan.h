#pragma once
// Which bytes of which disks a dump is to hold.

#include <map>
#include <string>
#include <vector>

#include "group.h"
#include "orlo_registry.h"
#include "ranges.h"

namespace tool {

struct DiskRanges {
  KABDiskCtx* disk;
  std::vector<Range> ranges;
};

/// Collects ranges disk by disk. What a disk says leads outside of it, or cannot be found because something is
/// damaged, is told on stderr, left out, and makes the plan incomplete.
class DumpPlan {
 public:
  DumpPlan(Tool& tool, Group& group) : tool_(tool), group_(group) {}

  /// Ranges as given by the user, in their order.
  void AddGiven(KABDiskCtx* disk, const std::vector<Range>& ranges);
  /// Every metadata region of a disk and no data: the Arvo block and, by what the disk is, the checkpoint records and
  /// the blocks of both logs; the dedup area up to its data; block 0, the registry, every map and every component
  /// superblock. What of them lies in the write buffer comes from the SSD.
  void AddMetadata(KABDiskCtx* disk);
  /// The SSD's Arvo block, its checkpoint records and the blocks of both logs.
  void AddLog();
  /// All that a component is read from: its disk's Arvo block, block 0 and registry, its map and its data, from the
  /// write buffer where they lie there. A Failure when no disk lists it.
  void AddComponent(const std::string& uuid);

  /// The disks that have ranges, SSD first; what was collected is sorted and merged, given ranges stay as they are.
  std::vector<DiskRanges> Disks();
  bool complete() const { return complete_; }

 private:
  void Add(KABDiskCtx* disk, uint64_t offset, uint64_t length);
  void AddArvoBlock(KABDiskCtx* disk);
  void AddHead(KABDiskCtx* disk);
  void AddDedup(KABDiskCtx* disk);
  void AddOrlo(KABDiskCtx* disk);
  bool AddRegistry(KABDiskCtx* disk, Registry* registry);
  void AddMap(KABDiskCtx* disk, const Vdisk& vdisk, uint64_t runsUpTo);
  void AddLogged(KABDiskCtx* disk, uint64_t offset, uint64_t length);
  bool Replayed();
  void Lack(const std::string& what);

  Tool& tool_;
  Group& group_;
  std::map<KABDiskCtx*, std::vector<Range>> found_;
  std::map<KABDiskCtx*, std::vector<Range>> given_;
  bool complete_ = true;
  uint32_t lacks_ = 0;
  bool replayTried_ = false;
  bool replayed_ = false;
};

}  // namespace tool
