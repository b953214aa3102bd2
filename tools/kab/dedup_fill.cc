#include "dedup_fill.h"

#include <algorithm>

#include "kab/ssdlog.h"

namespace tool {
namespace {

bool IsSound(const DedupArea& area, const DedupRegion& region, const DedupBlock& block) {
  return block.bytes != nullptr && DDPIsValidBlkHdr(area.disk(), block.bytes, region.type, block.index) != 0;
}

}  // namespace

DedupFill CountUnits(const DedupArea& area) {
  DedupFill fill;
  fill.units = area.endUnit() - area.firstUnit();
  for (const DedupRegion& region : area.regions()) {
    if (region.type != DDP_BLK_BITMAP) continue;
    if (!area.Fits(region)) return {fill.units, 0, false};
    const uint64_t blocks = (area.endUnit() + kBitsPerBitmapBlock - 1) / kBitsPerBitmapBlock;
    ForEachBlock(area, region, 0, std::min(blocks, region.size), false, [&](const DedupBlock& block) {
      if (!IsSound(area, region, block)) {
        fill.complete = false;
        return;
      }
      // The units in front of the first belong to the translation map's expansion.
      const uint64_t first = block.index * kBitsPerBitmapBlock;
      const uint64_t end = std::min<uint64_t>(area.endUnit() - first, kBitsPerBitmapBlock);
      const uint64_t skip = std::min(end, area.firstUnit() > first ? area.firstUnit() - first : 0);
      const uint8_t* bits = block.bytes + kBitmapHeader;
      fill.inUse += KABCountSetBitsInBuffer(bits, end) - KABCountSetBitsInBuffer(bits, skip);
    });
  }
  return fill;
}

DedupMapped CountMapped(const DedupArea& area, const std::function<void(uint64_t)>& progress) {
  DedupMapped mapped;
  for (const DedupRegion& region : area.regions()) {
    if (region.type != DDP_BLK_XMAP) continue;
    if (!area.Fits(region)) {
      mapped.complete = false;
      continue;
    }
    ForEachBlock(area, region, 0, region.size, false, [&](const DedupBlock& block) {
      progress(kDedupBlock);
      if (block.bytes != nullptr && IsBlank(block.bytes)) return;
      if (!IsSound(area, region, block)) {
        mapped.complete = false;
        return;
      }
      for (uint32_t i = 0; i < kXmapEntries; ++i) mapped.blocks += RecordAt(block.bytes, i).mapped() ? 1 : 0;
    });
  }
  return mapped;
}

}  // namespace tool
