#pragma once
// Blocks of the translation map, the packed records in them and the units these name.

#include <cstring>

#include "ddp/superblock_format.h"

namespace kab::ddp {

//    0        36       46                 4096
//    | header | unread | 225 entries of 18 |
struct XmapEntry {
  std::byte unread0[8];
  uint8_t record[10];
};
struct XmapBlk {
  BlkHdr hdr;
  std::byte unread36[10];
  XmapEntry entries[kXmapEntriesPerBlk];
};
static_assert(OnDisk<XmapBlk> && sizeof(XmapBlk) == kBlockSize && offsetof(XmapBlk, entries) == 46);

//    0                        2046                          2048
//    | LZ4 block, then unused | its length in the low 11 bits |
inline constexpr uint32_t kLengthAt = kUnitSize - 2;
inline constexpr uint16_t kLengthMask = 0x7FF;

inline constexpr uint64_t kNoUnit = 0xFFFFFFFFF;  // 36 bits
inline constexpr uint32_t kUnitBits = 36;

/// A packed record, 10 bytes:
///
///    bits  0      4          8                   44                 80
///          | type | dev idx  | first unit (PBN1) | second unit (PBN2) |
struct Record {
  uint32_t type;
  uint32_t devIdx;
  uint64_t unit1;
  uint64_t unit2;

  uint64_t FullPbn(uint64_t unit) const {
    return ((uint64_t{devIdx} << kDevShift) | (uint64_t{type} << kTypeShift)) + unit;
  }
  /// Two units hold the halves of a block as they are; one holds the block compressed.
  bool HasSecond() const { return unit2 != kNoUnit && FullPbn(unit2) != 0; }
  bool HasFirst() const { return unit1 != kNoUnit && FullPbn(unit1) != 0; }
};

inline Record Unpack(const uint8_t* bytes) {
  le64 low;
  le64 high;
  std::memcpy(&low, bytes, sizeof low);
  std::memcpy(&high, bytes + 2, sizeof high);
  return {.type = bytes[0] & 0xFU,
          .devIdx = static_cast<uint32_t>(bytes[0]) >> 4,
          .unit1 = (low >> 8) & kNoUnit,
          .unit2 = high >> (64 - kUnitBits)};
}

inline void Pack(const Record& record, uint8_t* bytes) {
  const le64 low = record.type | (record.devIdx << 4) | (record.unit1 << 8) | (record.unit2 << 44);
  std::memcpy(bytes, &low, sizeof low);
  bytes[8] = static_cast<uint8_t>(record.unit2 >> 20);
  bytes[9] = static_cast<uint8_t>(record.unit2 >> 28);
}

}  // namespace kab::ddp
