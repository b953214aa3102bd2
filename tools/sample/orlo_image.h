#pragma once
// Orlo data on a capacity disk: block 0, the registry, components with their map trees and data.

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "sample/disk_image.h"

namespace sample {

constexpr uint64_t kMapBlock = 4096;
constexpr uint64_t kNoPhysical = ~0ULL;

/// One leaf record; runs of a component rise and do not overlap.
struct OrloRun {
  uint32_t logical;       // block
  uint32_t count;         // blocks
  uint8_t type = 1;       // 6 bits
  bool hole = false;      // no physical block
  uint64_t physical = 0;  // block; chosen by the builder
};

/// How a map tree is cut into blocks. 0: as many as fit.
struct OrloTreeShape {
  uint32_t leafRecords = 0;
  uint32_t children = 0;
  /// Separators lie at the end of the left-hand child's last run rather than at the right-hand child's first key.
  bool looseSeparators = false;
};

struct OrloVdisk {
  Uuid uuid;
  uint32_t id;
  bool superBlockPresent;
  std::vector<OrloRun> runs;
  uint64_t root = kNoPhysical;  // map block
  uint32_t levels = 0;
  std::vector<uint64_t> mapBlocks = {};  // leaves first, the root last
};

/// Writes Orlo structures into a disk whose size the caller chose; the disk must outlive the writer.
class OrloImage {
 public:
  /// Sets the disk's format version: 6 has layouts of its own, 7 and above share theirs.
  OrloImage(DiskImage& disk, uint8_t version);

  /// Places the runs' data (noise) and the map, and lists the vdisk. A run that begins at logical block 0 gets a valid
  /// component superblock at its start.
  const OrloVdisk& AddVdisk(const Uuid& uuid, std::vector<OrloRun> runs, OrloTreeShape shape = {},
                            bool superBlockPresent = true);
  /// Runs that look like a component: a superblock, then `count` runs of up to `longest` blocks among gaps, holes and
  /// records of other types. The same for the same seed.
  static std::vector<OrloRun> MakeRuns(uint32_t count, uint32_t longest, uint64_t seed);

  /// The component's bytes as its runs say, whatever became of its map.
  std::vector<uint8_t> Picture(size_t vdisk, uint64_t offset, uint64_t length) const;

  const std::deque<OrloVdisk>& vdisks() const { return vdisks_; }
  uint8_t version() const { return version_; }
  /// Byte offset on the disk of a block of the data area.
  static uint64_t BlockAt(uint64_t block) { return kDataOffset + block * kMapBlock; }
  /// Byte offset on the disk of the registry.
  static uint64_t RegistryAt();
  uint32_t EntrySize() const { return version_ == 6 ? 44 : 48; }

  /// Lays one map block; `seconds` are a leaf's runs or, one more than the keys, an interior node's children.
  void PutLeaf(uint64_t block, std::span<const OrloRun> runs);
  void PutInterior(uint64_t block, std::span<const uint32_t> keys, std::span<const uint64_t> children);
  /// Takes blocks that nothing else uses.
  uint64_t Allocate(uint64_t blocks);

  uint32_t MaxLeafRecords() const { return version_ == 6 ? 339 : 254; }
  uint32_t MaxChildren() const { return version_ == 6 ? 510 : 340; }

 private:
  void PutRegistry();
  uint64_t PutTree(OrloVdisk& vdisk, const OrloTreeShape& shape);

  DiskImage& disk_;
  uint8_t version_;
  uint64_t nextBlock_ = 64;
  std::deque<OrloVdisk> vdisks_;  // what AddVdisk returned stays where it is
};

}  // namespace sample
