#include "as_group.h"

#include <algorithm>
#include <cstring>

#include "dedup_area.h"
#include "kab/indexes.h"
#include "kab/ssdlog.h"

namespace tool {
namespace {

constexpr uint64_t kZeroFirst = 0xFFFFFEFFFF5FF;
constexpr uint64_t kZeroEnd = 0xFFFFFFFFFF5FF;
constexpr uint32_t kDevIdxShift = 50;
constexpr size_t kWriteBufferStartAt = 20;

// The reserved range of block numbers that stands for data written as zeros; the arithmetic wraps on purpose.
bool IsZeroWrite(const KABDiskCtx& ssd, uint64_t address, uint64_t length) {
  uint64_t start;
  std::memcpy(&start, ssd.logState->checkpoint + kWriteBufferStartAt, sizeof start);
  return ((address - 1 + length) >> 12U) - start < kZeroEnd && (address >> 12U) - start >= kZeroFirst;
}

}  // namespace

void ForEachSource(const KABDiskCtx& disk, const Range& range, const std::function<void(const Piece&)>& take) {
  const uint32_t mode = DedupMode(disk);
  const uint64_t shift = mode == 2 ? static_cast<uint64_t>(disk.devIdx) << kDevIdxShift : 0;
  const auto backing = [&](uint64_t offset, uint64_t length) {
    if (mode == 0) {
      take({offset, length, "disk", true, false, disk.dataOffset + offset});
    } else {
      take({offset, length, "dedup layer", false, false, 0});
    }
  };
  uint64_t key = range.offset + shift;
  uint64_t remaining = range.length;
  while (remaining != 0) {
    ZOLTLbaTableCursor cursor;
    const ZOLTLbaRange* found =
        disk.plogState != nullptr ? ZOLTLbaTable_Find(&disk.plogState->lbaTable, key, &cursor) : nullptr;
    if (found == nullptr || found->start > key + remaining - 1) {
      backing(key - shift, remaining);
      return;
    }
    if (found->start > key) {
      const uint64_t gap = found->start - key;
      backing(key - shift, gap);
      key += gap;
      remaining -= gap;
    }
    const uint64_t piece = std::min(found->start + found->length - key, remaining);
    const uint64_t address = found->address + (key - found->start);
    if (IsZeroWrite(*disk.group, address, piece)) {
      take({key - shift, piece, "zero write", false, false, 0});
    } else {
      take({key - shift, piece, "write buffer", true, true, disk.dataOffset + address});
    }
    key += piece;
    remaining -= piece;
  }
}

}  // namespace tool
