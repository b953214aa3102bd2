#pragma once
// The area of the dedup layer, 3 MiB into the disk, in blocks of 4096 bytes:
//
//    no mdr:          | SB | txnSB | resrv | hmap | bmap | xmap | data ...
//    mdr:             | SB | txnSB | resrv | bmap | xmap | metaBmaps | hmap | SB' | txnSB' | ... | metaBmaps' | data
//    ...
//
// With mdr, a second copy of everything before the hash map follows it. Every metadata block begins with the header.

#include <cstddef>

#include "core/frame/bytes.h"

namespace kab::ddp {

inline constexpr uint64_t kAreaOffset = 0x300000;  // bytes
inline constexpr uint32_t kBlockSize = 4096;
inline constexpr uint32_t kBlockShift = 12;
inline constexpr uint32_t kUnitSize = 2048;
inline constexpr uint32_t kMagic = 0xB000DAAA;
inline constexpr uint32_t kBitsPerBlk = 32448;
inline constexpr uint32_t kXmapEntriesPerBlk = 225;
inline constexpr uint32_t kHashEntriesPerBlk = 119;

// A block number within the area has 40 bits in tags and PBNs.
inline constexpr uint64_t kBlkMask = (uint64_t{1} << 40) - 1;
inline constexpr uint32_t kTypeShift = 40;
inline constexpr uint32_t kDevShift = 44;

//    0       4      8        16         20      28            36
//    | magic | type | unread | checksum | owner | address tag |
struct BlkHdr {
  le32 magic;
  le32 blkType;
  std::byte unread8[8];
  le32 checksum;  // CRC-32C of the whole block with this field zero
  le64 owner;     // the superblock's `id`
  le64 tag;       // 0, or block | type << 40 | device << 44
};
static_assert(OnDisk<BlkHdr> && sizeof(BlkHdr) == 36);
static_assert(offsetof(BlkHdr, checksum) == 16 && offsetof(BlkHdr, owner) == 20 && offsetof(BlkHdr, tag) == 28);

enum SuperBlkFlags : uint16_t {
  kHasHashMap = 1 << 0,
  kMdr = 1 << 2,            // redundant metadata; the ratio is the superblock's
  kHasMapBitmaps = 1 << 3,  // counts with kMdr only
};

// Starts and sizes in blocks, relative to the area; dataSize in units of 2048 bytes.
struct SuperBlk {
  BlkHdr hdr;
  std::byte unread36[20];
  le64 id;
  std::byte unread64[16];
  le16 flags;
  std::byte unread82[2];
  le64 txnSBStart, txnSBSize;
  le64 resrvStart, resrvSize;
  le64 hmapStart, hmapSize;
  le64 bmapStart, bmapSize;
  le64 xmapStart, xmapSize;
  le64 dataStart, dataSize;
  le64 metaBmapHmapStart, metaBmapHmapSize;
  le64 metaBmapBmapStart, metaBmapBmapSize;
  le64 metaBmapXmapStart, metaBmapXmapSize;
  std::byte unread228[21];
  uint8_t hmapBlksPerMetaMapBit;
  uint8_t bmapBlksPerMetaMapBit;
  uint8_t xmapBlksPerMetaMapBit;
  uint8_t ddpRatio;
  le64 softReserveSize;
  le64 expansion1Size;
  le64 expansion2[2];
  le64 expansion3[2];
  std::byte unread301[4096 - 301];
};
static_assert(OnDisk<SuperBlk> && sizeof(SuperBlk) == kBlockSize);
static_assert(offsetof(SuperBlk, id) == 56 && offsetof(SuperBlk, flags) == 80 && offsetof(SuperBlk, txnSBStart) == 84);
static_assert(offsetof(SuperBlk, hmapStart) == 116 && offsetof(SuperBlk, dataStart) == 164);
static_assert(offsetof(SuperBlk, metaBmapXmapSize) == 220 && offsetof(SuperBlk, hmapBlksPerMetaMapBit) == 249);
static_assert(offsetof(SuperBlk, softReserveSize) == 253 && offsetof(SuperBlk, expansion3) == 285);

}  // namespace kab::ddp
