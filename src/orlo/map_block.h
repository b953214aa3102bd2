#pragma once
// Map blocks: the 4096-byte nodes of a map tree, little-endian.
//
//    0       16      18           1034, 1374 or 2054
//    | other | count | keys, u32  | children of an interior node, or records of a leaf |
//
// The count has 15 bits, the top bit marks a leaf. Where the second array begins, and what lies in it:
//
//                   interior, count + 1 children    leaf, count records
//    version 6      2054, u32                       1374, 8 bytes
//    all others     1374, u64                       1034, 12 bytes
//
// Record, version 6:   u32 physical block | u32: 26 bits block count, 6 bits type
// Record, all others:  u64 physical block | u32: 26 bits block count, 6 bits type

#include <algorithm>

#include "core/frame/bytes.h"
#include "core/frame/memory.h"
#include "orlo/block0_format.h"

namespace kab::orlo {

inline constexpr uint64_t kNoBlock = UINT64_MAX;
inline constexpr uint64_t kNoBlockOffset = 0x1fffffffffffe00;
inline constexpr uint64_t kBlockMask = (1ULL << 45U) - 1;
inline constexpr uint32_t kAllocatedType = 1;
inline constexpr uint32_t kHeaderAt = 16;
inline constexpr uint32_t kKeysAt = 18;
inline constexpr uint32_t kChildrenAtV6 = 2054;
inline constexpr uint32_t kRecordsAtV6 = 1374;
inline constexpr uint32_t kChildrenAt = 1374;
inline constexpr uint32_t kRecordsAt = 1034;

struct RecordV6 {
  le32 physical;
  le32 countAndType;
};
struct Record64 {
  le64 physical;
  le32 countAndType;
};
static_assert(OnDisk<RecordV6> && sizeof(RecordV6) == 8 && OnDisk<Record64> && sizeof(Record64) == 12);

/// A block number as it addresses the disk; kNoBlock stays.
inline uint64_t MaskBlock(uint64_t number) { return number == kNoBlock ? number : number & kBlockMask; }

/// The byte offset of a block.
inline uint64_t BlockOffset(uint64_t number) {
  return number == kNoBlock ? kNoBlockOffset : (number & kBlockMask) * ORLO_MAP_BLOCK_SIZE;
}

struct Record {
  uint64_t physical;  // masked, or kNoBlock for a hole
  uint32_t count;     // blocks
  uint32_t type;
};

inline Record DecodeRecord(uint64_t physical, uint32_t countAndType) {
  return {MaskBlock(physical), countAndType & 0x3ffffffU, countAndType >> 26U};
}
inline Record DecodeRecordV6(const void* bytes) {
  const auto stored = Load<RecordV6>(bytes);
  return DecodeRecord(WidenBlock(stored.physical), stored.countAndType);
}
inline Record DecodeRecord64(const void* bytes) {
  const auto stored = Load<Record64>(bytes);
  return DecodeRecord(stored.physical, stored.countAndType);
}

/// A view of a map block. Indexes must be below Count(), a child's may equal it.
class MapNode {
 public:
  MapNode(const uint8_t* block, uint32_t version) : block_(block), old_(version == 6) {}

  bool IsLeaf() const { return (block_[kHeaderAt + 1] & 0x80U) != 0; }
  uint32_t StatedCount() const { return Load<le16>(block_ + kHeaderAt) & 0x7fffU; }
  /// Keys that fit together with their records or children.
  uint32_t Capacity() const {
    const uint32_t keys = (ArrayStart() - kKeysAt) / 4;
    const uint32_t others = (ORLO_MAP_BLOCK_SIZE - ArrayStart()) / ElementSize();
    return std::min(keys, IsLeaf() ? others : others - 1);
  }
  /// The stated count as far as it can be true.
  uint32_t Count() const { return std::min(StatedCount(), Capacity()); }
  /// Records of a leaf, children of an interior node.
  uint64_t Positions() const { return IsLeaf() ? Count() : Count() + 1ULL; }

  uint32_t Key(uint64_t i) const { return Load<le32>(block_ + kKeysAt + i * 4); }
  /// The number of keys below `lba`.
  uint32_t LowerBound(uint64_t lba) const {
    uint32_t first = 0;
    for (uint32_t left = Count(); left > 0;) {
      const uint32_t half = left / 2;
      if (Key(first + half) < lba) {
        first += half + 1;
        left -= half + 1;
      } else {
        left = half;
      }
    }
    return first;
  }
  uint64_t Child(uint64_t i) const {
    const uint8_t* at = block_ + ArrayStart() + i * ElementSize();
    return MaskBlock(old_ ? WidenBlock(Load<le32>(at)) : uint64_t{Load<le64>(at)});
  }
  Record RecordAt(uint64_t i) const {
    const uint8_t* at = block_ + ArrayStart() + i * ElementSize();
    return old_ ? DecodeRecordV6(at) : DecodeRecord64(at);
  }

 private:
  uint32_t ArrayStart() const {
    if (IsLeaf()) return old_ ? kRecordsAtV6 : kRecordsAt;
    return old_ ? kChildrenAtV6 : kChildrenAt;
  }
  uint32_t ElementSize() const {
    if (IsLeaf()) return old_ ? sizeof(RecordV6) : sizeof(Record64);
    return old_ ? sizeof(uint32_t) : sizeof(uint64_t);
  }

  const uint8_t* block_;
  bool old_;
};

/// 0, or 9 with a line that names the fault. Only a root may be a leaf without entries.
uint32_t CheckMapBlock(const KABDiskCtx* disk, uint64_t blockNo, const uint8_t* block, uint32_t version, bool isRoot);

/// Says what is wrong with a block or the way it was reached. Always 9.
uint32_t RefuseMapBlock(const KABDiskCtx* disk, uint64_t blockNo, const char* fault);

/// Reads a block into memory of its own and checks it. 0, 1, 3 or 9.
uint32_t LoadMapBlock(KABDiskCtx* disk, uint64_t blockNo, uint32_t version, bool isRoot, Owned<uint8_t[]>& block);

inline constexpr char kTooDeep[] = "the tree is too deep";
inline constexpr char kOwnAncestor[] = "it is its own ancestor";
inline constexpr char kNotRising[] = "the keys of the walk do not rise";
inline constexpr char kOverlap[] = "the runs of the tree overlap";

}  // namespace kab::orlo
