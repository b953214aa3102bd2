#pragma once
// The SSD log on the cache SSD, little-endian, in blocks of 4096 bytes from the data offset on:
//
//    block 0              block 1              start                              start + length
//    | checkpoint record  | its second copy    | ...  | write buffer: PLOG and LLOG blocks, written data |
//
// A log block is a header and up to 255 entries:
//
//    0        64                 64 + length of the first
//    | header | entry            | entry            | ...                                     4096 |
//
// An entry is a prefix, a payload and, for a write, the packed map of the sectors that hold its data:
//
//    0      16               20             24       28        30       32 or 48
//    | UUID | payload length | entry length | unread | version | unread | payload ... | packed map, if any |

#include "core/frame/bytes.h"

namespace kab::ssdlog {

inline constexpr uint64_t kBlockSize = 4096;
inline constexpr uint64_t kSectorSize = 512;
inline constexpr uint64_t kSectorsPerBlock = 8;
/// A log pointer with this value points nowhere.
inline constexpr uint64_t kInvalidBlk = 0xFFFFFFFFFF5FF;
inline constexpr uint64_t kMagic = 0xCAFEF00D08142007;
inline constexpr uint16_t kVersion = 1;
inline constexpr uint16_t kRecordKind = 5;
inline constexpr uint8_t kPlogType = 1;
inline constexpr uint64_t kGeometry = 0x20000;

// Block numbers that stand for data that is nowhere, counted from the write-buffer start.
inline constexpr uint64_t kReservedFirst = 0xFFFFFEFFFF5FF;  // written as zeros
inline constexpr uint64_t kReservedSecond = 0xFFFFFF07FF5FF;
inline constexpr uint64_t kReservedThird = kInvalidBlk;
inline constexpr uint64_t kBlkMask = 0xFFFFFFFFFFFFF;  // 52 bits

struct CheckpointRecord {
  le16 version;
  le16 kind;
  le64 magic;
  le64 generation;
  le64 start;   // first block of the write buffer
  le64 length;  // blocks
  le64 llogFirst;
  le64 llogLast;
  le64 llogPresence;
  le64 plogFirst;
  le64 plogLast;
  le64 plogPresence;
  le32 blockSize;
  uint8_t unread88[4];
  le64 geometry;
  le64 end;  // first block beyond the write buffer
  le64 nonZero;
  uint8_t unread116[4];
  le32 zero;
  uint8_t unread124[8];
  le64 checksum;
};
static_assert(OnDisk<CheckpointRecord> && sizeof(CheckpointRecord) == 140);
static_assert(offsetof(CheckpointRecord, start) == 20 && offsetof(CheckpointRecord, plogFirst) == 60);
static_assert(offsetof(CheckpointRecord, blockSize) == 84 && offsetof(CheckpointRecord, geometry) == 92);
static_assert(offsetof(CheckpointRecord, zero) == 120 && offsetof(CheckpointRecord, checksum) == 132);

struct LogBlockHeader {
  le16 version;
  le16 kind;
  le64 magic;
  uint8_t entryCount;
  uint8_t logType;
  uint8_t unread14[2];
  le64 next;
  le64 prev;
  le64 prevChecksum;  // the checksum field of the block before
  uint8_t unread40[16];
  le64 checksum;
};
static_assert(OnDisk<LogBlockHeader> && sizeof(LogBlockHeader) == 64);
static_assert(offsetof(LogBlockHeader, entryCount) == 12 && offsetof(LogBlockHeader, next) == 16);
static_assert(offsetof(LogBlockHeader, prevChecksum) == 32 && offsetof(LogBlockHeader, checksum) == 56);

struct EntryPrefix {
  uint8_t uuid[16];
  le32 payloadLength;  // bytes
  le32 entryLength;    // bytes, prefix and map included
  uint8_t unread24[4];
  le16 version;  // 1: the prefix is 48 bytes long, else 32
  uint8_t unread30[2];
};
static_assert(OnDisk<EntryPrefix> && sizeof(EntryPrefix) == 32);
static_assert(offsetof(EntryPrefix, entryLength) == 20 && offsetof(EntryPrefix, version) == 28);

inline constexpr uint32_t kPrefixLength1 = 48;
inline uint32_t PrefixLength(const EntryPrefix& prefix) {
  return prefix.version == 1 ? kPrefixLength1 : uint32_t{sizeof(EntryPrefix)};
}

struct OperationPrefix {
  uint8_t unread0[24];
  uint8_t operation;
  uint8_t unread25[3];
  le32 zero;
};
static_assert(OnDisk<OperationPrefix> && offsetof(OperationPrefix, zero) == 28);
inline constexpr uint8_t kLastOperation = 67;

/// What every PLOG entry has at byte 48.
struct PlogHeader {
  le16 version;
  le16 one;
  le32 type;
};
static_assert(OnDisk<PlogHeader> && sizeof(PlogHeader) == 8);

enum PlogEntryType : uint32_t { kPlogWrite = 1, kPlogRelease = 2, kPlogGcp = 3, kPlogWriteToo = 4 };

struct PlogWriteEntry {
  uint8_t prefix[48];
  PlogHeader header;
  le64 lsn;     // 55 bits
  le64 lba;     // bytes
  le32 length;  // bytes
};
static_assert(OnDisk<PlogWriteEntry> && sizeof(PlogWriteEntry) == 76 && offsetof(PlogWriteEntry, lsn) == 56);

struct PlogReleaseEntry {
  uint8_t prefix[48];
  PlogHeader header;
  le32 lsnCount;  // then that many le64
};
static_assert(OnDisk<PlogReleaseEntry> && sizeof(PlogReleaseEntry) == 60);

// Packed extent, 43 bits of address and 13 of length, both in sectors:
//
//    byte 0: address bits 42..40, length bits 12..8 | 1: length bits 7..0 | 2: address bits 39..32 | 3..6: bits 31..0
struct PackedExtent {
  uint8_t high;
  uint8_t lengthLow;
  uint8_t addressMiddle;
  le32 addressLow;

  uint64_t Address() const {
    return uint64_t{addressLow} | uint64_t{addressMiddle} << 32 | static_cast<uint64_t>(high >> 5U) << 40;
  }
  uint16_t Length() const { return static_cast<uint16_t>((high & 31U) << 8U | lengthLow); }
};
static_assert(OnDisk<PackedExtent> && sizeof(PackedExtent) == 7);
inline constexpr uint64_t kPackedReservedFirst = 0x7FFFFFFFFFF;
inline constexpr uint64_t kPackedReservedSecond = 0x7FFFFFFFFFE;

/// Element of an unpacked map, which begins with a 16-bit count; sectors from the data offset on.
struct Extent {
  le64 address;
  le16 length;
};
static_assert(OnDisk<Extent> && sizeof(Extent) == 10);

inline constexpr uint32_t kMaxMapElements = 512;
inline constexpr uint64_t MapSize(uint64_t count) { return count * sizeof(Extent) + sizeof(le16); }

}  // namespace kab::ssdlog
