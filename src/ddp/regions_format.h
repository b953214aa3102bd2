#pragma once
// Blocks of the hash map and the bitmap.

#include "ddp/superblock_format.h"

namespace kab::ddp {

//    0                  20      24    32    34
//    | SHA-1 of a block | value | PBN | tag |
struct HashEntry {
  uint8_t hash[20];
  le32 value;
  le64 pbn;
  le16 tag;
};
static_assert(OnDisk<HashEntry> && sizeof(HashEntry) == 34);

//    0        36        50                  4096
//    | header | unread  | 119 hash entries  |
struct HashMapBlk {
  BlkHdr hdr;
  std::byte unread36[14];
  HashEntry entries[kHashEntriesPerBlk];
};
static_assert(OnDisk<HashMapBlk> && sizeof(HashMapBlk) == kBlockSize && offsetof(HashMapBlk, entries) == 50);

//    0        36        40                                        4096
//    | header | unread  | 32448 bits, the least significant first |
struct BitmapBlk {
  BlkHdr hdr;
  std::byte unread36[4];
  uint8_t bits[kBitsPerBlk / 8];
};
static_assert(OnDisk<BitmapBlk> && sizeof(BitmapBlk) == kBlockSize && offsetof(BitmapBlk, bits) == 40);

}  // namespace kab::ddp
