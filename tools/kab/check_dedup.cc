// The dedup layer: superblocks, their copies, and the header of every metadata block.

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "check.h"
#include "kab/ddp.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kAreaOffset = 0x300000;
constexpr uint32_t kBatch = 64;  // blocks a read
constexpr size_t kFlagsAt = 80;
constexpr uint8_t kRedundantMetadata = 4;

// A region as the superblock places it: two u64 at bare offsets, start and size in blocks.
struct Region {
  const char* name;
  uint32_t type;
  size_t startAt;
};
constexpr Region kRegions[] = {{"transaction superblock", 2, 84},
                               {"bitmap", 3, 132},
                               {"hash map", 4, 116},
                               {"translation map", 5, 148},
                               {"hash map's map bitmap", 8, 180},
                               {"bitmap's map bitmap", 9, 196},
                               {"translation map's map bitmap", 10, 212}};

uint64_t Word(const uint8_t* bytes) {
  uint64_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// A block of the translation map comes into being with the first logical block that it maps.
bool IsUnwritten(const uint8_t* block) {
  return std::all_of(block, block + kBlock, [](uint8_t byte) { return byte == 0; });
}

void CheckRegion(Check& check, KABDiskCtx* disk, const Region& region, Progress& progress) {
  const uint64_t start = Word(disk->dedupCtx.superBlk + region.startAt);
  const uint64_t size = Word(disk->dedupCtx.superBlk + region.startAt + 8);
  const uint64_t onDisk = (disk->diskSize - kAreaOffset) / kBlock;
  if (start > onDisk || size > onDisk - start) {
    check.Damage("DDP-REGION", *disk, {}, fmt::format("the {} leaves the disk", region.name),
                 fmt::format("at most {} blocks", onDisk), fmt::format("{} blocks from {}", size, start));
    check.complete = false;
    return;
  }
  std::vector<uint8_t> buffer(kBatch * kBlock);
  for (uint64_t index = 0; index < size; index += kBatch) {
    StopIfInterrupted();
    const auto count = static_cast<uint32_t>(std::min<uint64_t>(kBatch, size - index));
    const uint64_t offset = kAreaOffset + (start + index) * kBlock;
    if (KABRead(disk, buffer.data(), static_cast<uint32_t>(count * kBlock), static_cast<int64_t>(offset)) != KAB_OK) {
      check.Damage("DDP-UNREADABLE", *disk, offset,
                   fmt::format("{} blocks of the {} cannot be read", count, region.name));
      check.complete = false;
    } else {
      for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* block = buffer.data() + i * kBlock;
        if (DDPIsValidBlkHdr(disk, block, region.type, index + i) != 0) continue;
        if (region.type == DDP_BLK_XMAP && IsUnwritten(block)) continue;
        check.Damage("DDP-BLOCK-HEADER", *disk, offset + i * kBlock,
                     fmt::format("block {} of the {} has an invalid header or checksum", index + i, region.name));
      }
    }
    progress.Add(count * kBlock);
  }
}

void CheckDisk(Check& check, KABDiskCtx* disk) {
  LineTrap trap;
  // Against the copy first: validation corrects the superblock in memory.
  const bool hasCopy = (disk->dedupCtx.superBlk[kFlagsAt] & kRedundantMetadata) != 0;
  if (hasCopy) DDPCompareSuperBlks(disk);
  for (std::string& line : trap.Take(disk->uuidText)) {
    check.Warn("DDP-SUPERBLOCK-COPY", *disk, std::move(line));
  }
  uint8_t fixed = 0;
  if (DDPValidateSuperBlk(disk, &fixed) == 0) {
    check.TakeLines(trap, "DDP-SUPERBLOCK", *disk, kAreaOffset);
    check.complete = false;
    return;
  }
  check.TakeLines(trap, "DDP-SUPERBLOCK", *disk, kAreaOffset);
  if (check.quick) return;
  uint64_t total = 0;
  for (const Region& region : kRegions) total += Word(disk->dedupCtx.superBlk + region.startAt + 8) * kBlock;
  Progress progress(check.tool, fmt::format("check {}", disk->uuidText), total);
  for (const Region& region : kRegions) CheckRegion(check, disk, region, progress);
  progress.Finish();
}

}  // namespace

void CheckDedup(Check& check) {
  for (KABDiskCtx* disk : check.group.disks()) {
    if (disk->dedupCtx.superBlk != nullptr) CheckDisk(check, disk);
  }
}

}  // namespace tool
