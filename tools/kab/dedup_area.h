#pragma once
// The dedup area of a disk as its superblock lays it out, and its metadata regions read block by block.

#include <cstdint>
#include <functional>
#include <vector>

#include "kab/core.h"
#include "kab/ddp.h"

namespace tool {

constexpr uint64_t kDedupBlock = 4096;
constexpr uint64_t kDedupUnit = 2048;
constexpr uint64_t kDedupAreaOffset = 0x300000;
constexpr uint32_t kBitmapHeader = 40;  // bytes in front of a bitmap block's bits
constexpr uint32_t kBitsPerBitmapBlock = 32448;
constexpr uint32_t kXmapHeader = 46;
constexpr uint32_t kXmapEntries = 225;
constexpr uint32_t kXmapEntrySize = 18;
constexpr uint32_t kHashMapHeader = 50;
constexpr uint32_t kHashEntries = 119;
constexpr uint64_t kNoUnit = 0xFFFFFFFFF;

/// A run of metadata blocks. The expansion of the translation map is a region of its own.
struct DedupRegion {
  const char* name;
  uint32_t type;
  uint64_t start;       // block of the area
  uint64_t size;        // blocks
  uint64_t firstIndex;  // number of the first block within its type
  uint64_t copy;        // first block of the second copy, 0 without one
};

/// What the superblock in the disk's context says, with nothing taken for sound.
class DedupArea {
 public:
  explicit DedupArea(KABDiskCtx* disk);

  KABDiskCtx* disk() const { return disk_; }
  uint64_t blocks() const { return blocks_; }
  bool redundant() const { return redundant_; }
  bool hasHashMap() const { return hasHashMap_; }
  uint8_t ratio() const { return ratio_; }  // logical blocks a block, as configured
  const std::vector<DedupRegion>& regions() const { return regions_; }
  bool Fits(const DedupRegion& region) const {
    return region.start <= blocks_ && region.size <= blocks_ - region.start;
  }
  uint64_t MetadataBytes() const;

  /// Units are numbered from the start of the data region; the expansion of the translation map takes the first.
  uint64_t firstUnit() const { return firstUnit_; }
  uint64_t endUnit() const { return endUnit_; }
  /// The number of the unit that a PBN's low bits name; beyond endUnit when it names none.
  uint64_t UnitOf(uint64_t pbn) const { return pbn - dataStart_; }
  uint64_t UnitOffset(uint64_t unit) const { return kDedupAreaOffset + (unit + 2 * dataStart_) * kDedupUnit; }

 private:
  KABDiskCtx* disk_;
  uint64_t blocks_;  // of the disk, as units are bounded
  bool redundant_;
  bool hasHashMap_;
  uint8_t ratio_;
  uint64_t dataStart_;
  uint64_t firstUnit_ = 0;
  uint64_t endUnit_ = 0;
  std::vector<DedupRegion> regions_;
};

/// One block of a region, or the place of one that cannot be read.
struct DedupBlock {
  uint64_t index;  // within its type
  uint64_t offset;
  const uint8_t* bytes;  // null when it cannot be read
  const uint8_t* copy;   // of the second copy; null when there is none or it cannot be read
};

/// Reads blocks first to end of a region that fits the disk; `withCopy` reads the second copy along.
void ForEachBlock(const DedupArea& area, const DedupRegion& region, uint64_t first, uint64_t end, bool withCopy,
                  const std::function<void(const DedupBlock&)>& take);

/// A translation map entry's packed record, unpacked.
struct DedupRecord {
  uint32_t type;
  uint32_t devIdx;
  uint64_t unit1;
  uint64_t unit2;

  bool mapped() const { return unit1 != kNoUnit && type == DDP_BLK_DATA; }
  bool raw() const { return unit2 != kNoUnit; }  // two units, a half each
};
DedupRecord RecordAt(const uint8_t* xmapBlock, uint32_t entry);

/// Blocks as readers take them: magic and owner are right, whatever the checksum says.
bool IsTrusted(const DedupArea& area, const uint8_t* block);
bool IsBlank(const uint8_t* block);

/// The disks whose units name each other: a deduplicating group, or one compressed disk.
uint32_t DedupMode(const KABDiskCtx& disk);

}  // namespace tool
