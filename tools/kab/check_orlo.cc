// Orlo disks: block 0, the registry, and of every component its map tree and its superblock.

#include <fmt/format.h>

#include <cstring>
#include <set>
#include <vector>

#include "check.h"
#include "check_map.h"
#include "dump_file.h"
#include "kab/orlo.h"
#include "kab/zolt.h"
#include "load.h"
#include "orlo_registry.h"
#include "progress.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kRegistryEntriesAt = 52;
constexpr uint64_t kBytesPerName = 128;  // what one of a set takes
constexpr char kMagic[] = "OLRO";
constexpr size_t kMagicSize = 4;

class DiskCheck {
 public:
  DiskCheck(Check& check, KABDiskCtx* disk) : check_(check), disk_(disk), map_(check, disk) {}

  void Run() {
    LineTrap trap;
    uint8_t blk0[ORLO_BLOCK0_SIZE];
    const bool readable = OrloReadBlock0(disk_, blk0, nullptr) == KAB_OK;
    // The library's line about the magic would quote the disk's bytes as a text.
    const bool magic = !readable || std::memcmp(blk0, kMagic, kMagicSize) == 0;
    if (!magic) {
      check_.Damage("ORLO-BLOCK0", *disk_, disk_->dataOffset, "block 0 has a wrong magic",
                    HexText(reinterpret_cast<const uint8_t*>(kMagic), kMagicSize), HexText(blk0, kMagicSize));
    }
    if (!readable || !magic || OrloCheckBlock0(disk_, blk0) != KAB_OK) {
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
      check_.Warn("ORLO-REGISTRY-SHORT", *disk_, disk_->dataOffset + registry.offset,
                  fmt::format("the registry says {} bytes, {} are there", registry.stated, registry.length));
    }
    if (!check_.quick && !map_.walks()) {
      check_.Warn("ORLO-MAP-SKIPPED", *disk_,
                  "the map trees are not walked: that takes a bit of memory for each block");
      check_.complete = false;
    }
    if (map_.walks()) {
      map_.Reserve(0, 1);
      map_.Reserve(registry.offset / kBlock, (registry.offset % kBlock + registry.length + kBlock - 1) / kBlock);
    }
    uint64_t seen = 0;
    Progress progress(check_.tool, fmt::format("check {}", disk_->uuidText),
                      uint64_t{registry.entries} * ORLO_SUPERBLOCK_SIZE);
    const uint32_t status = ForEachVdisk(disk_, registry, [&](const Vdisk& vdisk) {
      StopIfInterrupted();
      CheckName(vdisk, registry, seen);
      ++seen;
      if (vdisk.present) CheckVdisk(vdisk, trap);
      progress.Add(ORLO_SUPERBLOCK_SIZE);
    });
    progress.Finish();
    if (status != KAB_OK || seen < registry.entries) {
      check_.TakeLines(trap, "ORLO-REGISTRY", *disk_, disk_->dataOffset + registry.offset);
      check_.Damage("ORLO-REGISTRY", *disk_, disk_->dataOffset + registry.offset, "the registry lacks entries",
                    std::to_string(registry.entries), std::to_string(seen));
      check_.complete = false;
    }
  }

 private:
  // Of two entries with one UUID a look-up finds the first alone.
  void CheckName(const Vdisk& vdisk, const Registry& registry, uint64_t index) {
    if (names_.size() >= check_.memory / kBytesPerName || names_.insert(vdisk.uuid).second) return;
    const uint64_t size = FormatVersion(*disk_) == 6 ? ORLO_VDISK_ENTRY_SIZE_V6 : ORLO_VDISK_ENTRY_SIZE;
    check_.Damage("ORLO-REGISTRY-TWICE", *disk_,
                  disk_->dataOffset + registry.offset + kRegistryEntriesAt + index * size,
                  fmt::format("the registry lists component {} twice", vdisk.uuid));
  }

  void CheckVdisk(const Vdisk& vdisk, LineTrap& trap) {
    if (map_.walks()) map_.CheckTree(vdisk);
    // What the map does not place reads as zeros, never as the superblock before.
    superblock_.assign(ORLO_SUPERBLOCK_SIZE, 0);
    if (OrloReadWriteComponentSuperBlock(disk_, vdisk.mapBlock, superblock_.data(), 1) != KAB_OK ||
        KABIsZOLTCompSblkValid(superblock_.data()) == 0) {
      check_.Damage(
          "ORLO-SUPERBLOCK", *disk_, map_.ByteOffset(vdisk.mapBlock),
          fmt::format("component {} has no valid superblock{}", vdisk.uuid, trap.TakeReason(disk_->uuidText)));
    }
  }

  Check& check_;
  KABDiskCtx* disk_;
  MapCheck map_;
  std::vector<uint8_t> superblock_;
  std::set<std::string> names_;
};

}  // namespace

void CheckOrlo(Check& check) {
  for (KABDiskCtx* disk : check.group.disks()) {
    if (disk->group != nullptr && IsOrlo(*disk)) DiskCheck(check, disk).Run();
  }
}

}  // namespace tool
