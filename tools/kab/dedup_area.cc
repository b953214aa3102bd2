#include "dedup_area.h"

#include <algorithm>
#include <cstring>

#include "load.h"
#include "tool.h"

namespace tool {
namespace {

constexpr uint32_t kBatch = 64;  // blocks a read
constexpr uint32_t kMagic = 0xB000DAAA;
constexpr size_t kOwnerAt = 20;
constexpr uint8_t kType11 = 11;

// Places in the superblock; a region is two u64, start and size in blocks.
constexpr size_t kOwnerIdAt = 56;
constexpr size_t kFlagsAt = 80;
constexpr size_t kTxnAt = 84;
constexpr size_t kHashMapAt = 116;
constexpr size_t kBitmapAt = 132;
constexpr size_t kXmapAt = 148;
constexpr size_t kDataAt = 164;
constexpr size_t kRatioAt = 252;
constexpr size_t kExpansionAt = 261;
constexpr uint8_t kHasHashMap = 1;
constexpr uint8_t kRedundant = 4;

struct Placed {
  const char* name;
  uint32_t type;
  size_t at;
};
constexpr Placed kPlaced[] = {{"transaction superblock", DDP_BLK_TXN_SUPER, kTxnAt},
                              {"bitmap", DDP_BLK_BITMAP, kBitmapAt},
                              {"hash map", DDP_BLK_HASH_MAP, kHashMapAt},
                              {"translation map", DDP_BLK_XMAP, kXmapAt},
                              {"hash map's map bitmap", DDP_BLK_META_BMAP_HMAP, 180},
                              {"bitmap's map bitmap", DDP_BLK_META_BMAP_BMAP, 196},
                              {"translation map's map bitmap", DDP_BLK_META_BMAP_XMAP, 212}};

bool ReadBlocks(KABDiskCtx* disk, uint64_t block, uint64_t count, uint8_t* buffer) {
  return KABRead(disk, buffer, static_cast<uint32_t>(count * kDedupBlock),
                 static_cast<int64_t>(kDedupAreaOffset + block * kDedupBlock)) == KAB_OK;
}

}  // namespace

DedupArea::DedupArea(KABDiskCtx* disk) : disk_(disk), blocks_(disk->usableSize / kDedupBlock) {
  const uint8_t* super = disk->dedupCtx.superBlk;
  const auto word = [super](size_t at) { return Load<uint64_t>(super + at); };
  redundant_ = (super[kFlagsAt] & kRedundant) != 0;
  hasHashMap_ = (super[kFlagsAt] & kHasHashMap) != 0;
  ratio_ = super[kRatioAt];
  dataStart_ = word(kDataAt);
  const uint64_t secondary = word(kHashMapAt) + word(kHashMapAt + 8);
  for (const Placed& placed : kPlaced) {
    const uint64_t start = word(placed.at);
    const bool copied = redundant_ && placed.type != DDP_BLK_HASH_MAP;
    regions_.push_back({placed.name, placed.type, start, word(placed.at + 8), 0, copied ? secondary + start : 0});
  }
  const uint64_t expansion = word(kExpansionAt) / 2;  // of one copy
  if (redundant_ && expansion != 0) {
    regions_.push_back({"translation map's expansion", DDP_BLK_XMAP, dataStart_, expansion, word(kXmapAt + 8),
                        dataStart_ + expansion});
  }
  if (dataStart_ > blocks_ || expansion > (blocks_ - dataStart_) / 2) return;
  const uint64_t bits = std::min(word(kBitmapAt + 8), blocks_) * kBitsPerBitmapBlock;
  endUnit_ = std::min({2 * (blocks_ - dataStart_), bits, kNoUnit - dataStart_});
  firstUnit_ = std::min(4 * expansion, endUnit_);
}

uint64_t DedupArea::MetadataBytes() const {
  uint64_t blocks = 0;
  for (const DedupRegion& region : regions_) {
    if (Fits(region)) blocks += region.size;
  }
  return blocks * kDedupBlock;
}

void ForEachBlock(const DedupArea& area, const DedupRegion& region, uint64_t first, uint64_t end, bool withCopy,
                  const std::function<void(const DedupBlock&)>& take) {
  withCopy = withCopy && region.copy != 0;
  const bool copyFits =
      withCopy && region.copy <= area.blocks() && region.size <= area.blocks() - region.copy;  // else it reads as lost
  std::vector<uint8_t> blocks(kBatch * kDedupBlock);
  std::vector<uint8_t> copies(copyFits ? blocks.size() : 0);
  for (uint64_t at = first; at < end; at += kBatch) {
    StopIfInterrupted();
    const uint64_t count = std::min<uint64_t>(kBatch, end - at);
    const bool whole = ReadBlocks(area.disk(), region.start + at, count, blocks.data());
    const bool wholeCopy = copyFits && ReadBlocks(area.disk(), region.copy + at, count, copies.data());
    for (uint64_t i = 0; i < count; ++i) {
      // A batch that fails is read again block by block: one bad sector costs one block.
      uint8_t* bytes = blocks.data() + i * kDedupBlock;
      uint8_t* copy = copyFits ? copies.data() + i * kDedupBlock : nullptr;
      if (!whole && !ReadBlocks(area.disk(), region.start + at + i, 1, bytes)) bytes = nullptr;
      if (copyFits && !wholeCopy && !ReadBlocks(area.disk(), region.copy + at + i, 1, copy)) copy = nullptr;
      take({region.firstIndex + at + i, kDedupAreaOffset + (region.start + at + i) * kDedupBlock, bytes, copy});
    }
  }
}

DedupRecord RecordAt(const uint8_t* xmapBlock, uint32_t entry) {
  const uint8_t* record = xmapBlock + kXmapHeader + entry * kXmapEntrySize + 8;
  return {record[0] & 15U, static_cast<uint32_t>(record[0]) >> 4, Load<uint64_t>(record) >> 8 & kNoUnit,
          Load<uint64_t>(record + 2) >> 28};
}

bool IsTrusted(const DedupArea& area, const uint8_t* block) {
  return Load<uint32_t>(block) == kMagic &&
         std::memcmp(block + kOwnerAt, area.disk()->dedupCtx.superBlk + kOwnerIdAt, 8) == 0;
}

bool IsBlank(const uint8_t* block) { return block[0] == 0 && std::memcmp(block, block + 1, kDedupBlock - 1) == 0; }

uint32_t DedupMode(const KABDiskCtx& disk) { return disk.meta[8] == kType11 ? 0 : disk.meta[11] >> 2U & 3U; }

}  // namespace tool
