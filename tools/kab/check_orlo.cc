// Orlo disks: block 0, the registry, every map tree, every component superblock.

#include <fmt/format.h>

#include <cstring>
#include <vector>

#include "check.h"
#include "kab/orlo.h"
#include "kab/zolt.h"
#include "orlo_registry.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kHole = ~uint64_t{0};
constexpr uint64_t kBlockMask = (uint64_t{1} << 45) - 1;
constexpr uint32_t kCountMask = (1U << 26) - 1;

struct Record {
  uint64_t key;       // logical block
  uint64_t physical;  // block of the data area, all ones for a hole
  uint64_t count;     // blocks
};

template <class T>
T Load(const uint8_t* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

Record RecordAt(const OrloBTreeCursor& cursor) {
  const uint8_t* block = cursor.top->block;
  const uint64_t i = cursor.top->index;
  const uint64_t key = Load<uint32_t>(block + 18 + 4 * i);
  if (cursor.version == 6) {
    const uint8_t* record = block + 1374 + 8 * i;
    const uint32_t physical = Load<uint32_t>(record);
    return {key, physical == ~uint32_t{0} ? kHole : physical, Load<uint32_t>(record + 4) & kCountMask};
  }
  const uint8_t* record = block + 1034 + 12 * i;
  const uint64_t physical = Load<uint64_t>(record);
  return {key, physical == kHole ? kHole : physical & kBlockMask, Load<uint32_t>(record + 8) & kCountMask};
}

class DiskCheck {
 public:
  DiskCheck(Check& check, KABDiskCtx* disk)
      : check_(check), disk_(disk), blocks_(disk->usableSize / kBlock), mapped_(check.quick ? 0 : blocks_) {}

  void Run() {
    LineTrap trap;
    uint8_t blk0[ORLO_BLOCK0_SIZE];
    if (OrloReadBlock0(disk_, blk0, nullptr) != KAB_OK || OrloCheckBlock0(disk_, blk0) != KAB_OK) {
      check_.TakeLines(trap, "ORLO-BLOCK0", *disk_, disk_->dataOffset);
      check_.complete = false;
      return;
    }
    Registry registry;
    if (ReadRegistry(disk_, &registry) != KAB_OK) {
      check_.TakeLines(trap, "ORLO-REGISTRY", *disk_, disk_->dataOffset);
      check_.Damage("ORLO-REGISTRY", *disk_, disk_->dataOffset, "the registry cannot be read");
      check_.complete = false;
      return;
    }
    if (registry.length < registry.stated) {
      check_.Warn("ORLO-REGISTRY-SHORT", *disk_,
                  fmt::format("the registry says {} bytes, {} are there", registry.stated, registry.length));
    }
    uint64_t seen = 0;
    const uint32_t status = ForEachVdisk(disk_, registry, [&](const Vdisk& vdisk) {
      StopIfInterrupted();
      ++seen;
      if (vdisk.present) CheckVdisk(vdisk, trap);
    });
    if (status != KAB_OK || seen < registry.entries) {
      check_.TakeLines(trap, "ORLO-REGISTRY", *disk_, disk_->dataOffset + registry.offset);
      check_.Damage("ORLO-REGISTRY", *disk_, disk_->dataOffset + registry.offset, "the registry lacks entries",
                    std::to_string(registry.entries), std::to_string(seen));
      check_.complete = false;
    }
  }

 private:
  uint64_t ByteOffset(uint64_t block) const { return disk_->dataOffset + (block & kBlockMask) * kBlock; }

  void CheckVdisk(const Vdisk& vdisk, LineTrap& trap) {
    CheckMap(vdisk, trap);
    std::vector<uint8_t> superblock(ORLO_SUPERBLOCK_SIZE);
    if (OrloReadWriteComponentSuperBlock(disk_, vdisk.mapBlock, superblock.data(), 1) != KAB_OK ||
        KABIsZOLTCompSblkValid(superblock.data()) == 0) {
      check_.TakeLines(trap, "ORLO-SUPERBLOCK", *disk_, ByteOffset(vdisk.mapBlock));
      check_.Damage("ORLO-SUPERBLOCK", *disk_, ByteOffset(vdisk.mapBlock),
                    fmt::format("component {} has no valid superblock", vdisk.uuid));
    }
  }

  // The walk ends at the first key that does not rise: nodes shared by a broken tree would come for ever.
  void CheckMap(const Vdisk& vdisk, LineTrap& trap) {
    OrloBTreeCursor cursor{};
    cursor.root = vdisk.mapBlock;
    cursor.version = disk_->meta[468];
    cursor.disk = disk_;
    uint64_t end = 0;  // of the run before
    for (bool first = true;; first = false) {
      const uint32_t status = OrloBTree_StepNext(&cursor);
      if (status != KAB_OK) {
        check_.TakeLines(trap, "ORLO-MAP", *disk_, ByteOffset(vdisk.mapBlock));
        check_.Damage("ORLO-MAP", *disk_, ByteOffset(vdisk.mapBlock),
                      fmt::format("the map of component {} cannot be walked", vdisk.uuid));
        check_.complete = false;
        break;
      }
      if (cursor.top == nullptr) break;
      const Record record = RecordAt(cursor);
      if (!first && record.key < end) {
        check_.Damage("ORLO-MAP-ORDER", *disk_, ByteOffset(vdisk.mapBlock),
                      fmt::format("component {}: a run overlaps the one before it", vdisk.uuid),
                      fmt::format("a key of at least {}", end), std::to_string(record.key));
        check_.complete = false;
        break;
      }
      end = record.key + (record.count != 0 ? record.count : 1);
      if (record.physical != kHole) CheckRun(vdisk, record);
    }
    OrloBTree_Clear(&cursor);
  }

  void CheckRun(const Vdisk& vdisk, const Record& record) {
    if (record.physical > blocks_ || record.count > blocks_ - record.physical) {
      check_.Damage("ORLO-MAP-BOUNDS", *disk_, ByteOffset(record.physical),
                    fmt::format("component {}: the run of logical block {} leaves the disk", vdisk.uuid, record.key),
                    fmt::format("at most block {}", blocks_),
                    fmt::format("{} blocks from {}", record.count, record.physical));
      return;
    }
    if (mapped_.empty()) return;
    bool twice = false;
    for (uint64_t i = 0; i < record.count; ++i) {
      twice = twice || mapped_[record.physical + i];
      mapped_[record.physical + i] = true;
    }
    if (twice) {
      check_.Damage("ORLO-MAP-TWICE", *disk_, ByteOffset(record.physical),
                    fmt::format("component {}: the run of logical block {} holds blocks that are mapped already",
                                vdisk.uuid, record.key));
    }
  }

  Check& check_;
  KABDiskCtx* disk_;
  uint64_t blocks_;
  std::vector<bool> mapped_;  // empty with --quick
};

}  // namespace

void CheckOrlo(Check& check) {
  for (KABDiskCtx* disk : check.group.disks()) {
    if (disk->group != nullptr && IsOrlo(*disk)) DiskCheck(check, disk).Run();
  }
}

}  // namespace tool
