#pragma once
// Disk groups with a dedup layer: every block that is stored can be read back through the translation map, and the
// picture of the logical bytes is kept beside it.

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "sample/disk_image.h"
#include "sample/group_image.h"

namespace sample {

class DedupImage {
 public:
  static constexpr uint32_t kBlock = 4096;
  static constexpr uint32_t kUnit = 2048;
  static constexpr uint64_t kOwner = 0x0ddba11ca110c8ed;

  struct Shape {
    uint32_t mode = 2;  // 1: compression only, 2: deduplication across the group
    uint32_t disks = 2;
    uint64_t diskSize = 16ULL << 20;  // bytes
    bool mdr = true;                  // a second copy of the metadata
    bool mapBitmaps = true;           // counts with mdr only
    bool hashMap = true;
    uint8_t ratio = 4;       // logical blocks a physical block
    uint64_t expansion = 0;  // blocks of the translation map that lie at the start of the data region; mdr only
    uint64_t ssdSize = 8ULL << 20;
  };

  // Blocks of 4096 bytes from the start of the area; the same on every disk of the group.
  struct Layout {
    uint64_t blks, bmapStart, bmapSize, xmapStart, xmapSize, xmapFull, hmapStart, hmapSize;
    uint64_t metaBmapStart[3], metaBmapSize[3];  // of the hash map, the bitmap, the translation map
    uint64_t dataStart, dataSize;                // dataSize in units
    uint64_t secondary;                          // first block of the second copy; 0 without one
  };

  explicit DedupImage(const Shape& shape);

  GroupImage& Group() { return group_; }
  DiskImage& Disk(uint32_t disk) { return group_.Disk(disk); }
  const Layout& Place() const { return at_; }
  const Shape& shape() const { return shape_; }

  /// Maps a logical block. Mode 2 shares the units of a block that is already known; a new one goes to `member`. Mode 1
  /// shares the zero block alone and ignores `member`.
  void Store(uint32_t disk, uint64_t logicalBlk, std::span<const uint8_t> block, uint32_t member);
  /// Takes a mapping away; its units stay in use.
  void Unmap(uint32_t disk, uint64_t logicalBlk);
  /// The first `blks` logical blocks of every disk: holes, zero blocks, duplicates, text and noise, by the seed.
  void StoreMixture(uint64_t blks, uint64_t seed);
  /// Marks all units in use except the first `free` of each disk that are still free.
  void FillUp(uint64_t free);

  /// Checksums and the second copy: to be called last, and again after a change that shall not be noticed.
  void Seal();
  GroupPaths Write(const std::string& folder) const { return group_.Write(folder); }

  /// The logical bytes of a disk from 0 to its highest mapped block.
  std::vector<uint8_t> Plain(uint32_t disk) const;

  /// Byte offsets on a disk.
  static uint64_t At(uint64_t blk) { return kDataOffset + blk * kBlock; }
  uint64_t XmapAt(uint64_t index) const;
  uint64_t EntryAt(uint64_t logicalBlk) const { return XmapAt(logicalBlk / 225) + 46 + logicalBlk % 225 * 18; }
  uint64_t UnitAt(uint64_t unit) const { return kDataOffset + (unit + 2 * at_.dataStart) * kUnit; }
  /// Units from the start of the data region, as the bitmap counts them.
  bool InUse(uint32_t disk, uint64_t unit) const;

 private:
  using Block = std::array<uint8_t, kBlock>;
  using Record = std::array<uint8_t, 10>;
  using Digest = std::array<uint8_t, 20>;

  void LayOut();
  void LaySuperBlk(uint32_t disk);
  void LayHeader(uint32_t disk, uint64_t blk, uint32_t type);
  uint64_t TakeUnit(uint32_t disk);
  Record StoreUnits(uint32_t disk, std::span<const uint8_t> block);
  void AddHashEntry(const Digest& digest, const Record& record);
  void PutRecord(uint32_t disk, uint64_t logicalBlk, const Record& record);
  void SealBlk(uint32_t disk, uint64_t blk);

  Shape shape_;
  GroupImage group_;
  Layout at_{};
  std::vector<uint64_t> nextUnit_;
  std::vector<std::map<Digest, Record>> known_;  // one for the group in mode 2, one a disk in mode 1
  std::vector<std::map<uint64_t, Block>> plain_;
};

}  // namespace sample
