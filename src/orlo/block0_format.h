#pragma once
// Where a disk's Orlo data begins, little-endian.
//
// Block 0, the first 96 bytes of the data area:
//    0        4         8       48                        56      72                        80
//    | "OLRO" | version | other | registry's byte offset  | other | registry buffer length  | other |
//
// Registry, packed:
//    0       16             24      36       40      52
//    | other | total bytes  | other | vdisks | other | entry | entry ... |
//
// Vdisk entry, version 6, 44 bytes:
//    0          4       12          16           20     36
//    | vdisk ID | other | map block | superblock | UUID | other |
//
// Vdisk entry, all other versions, 48 bytes:
//    0          4       12           16          24     40
//    | vdisk ID | other | superblock | map block | UUID | other |

#include <cstddef>

#include "core/frame/bytes.h"
#include "core/io/arvo_meta_format.h"
#include "kab/orlo.h"

namespace kab::orlo {

struct Block0 {
  char magic[4];
  le32 version;
  std::byte other8[40];
  le64 registryOffset;
  std::byte other56[16];
  le64 registryBufferLength;
  std::byte other80[16];
};
static_assert(OnDisk<Block0> && sizeof(Block0) == ORLO_BLOCK0_SIZE);
static_assert(offsetof(Block0, registryOffset) == 48 && offsetof(Block0, registryBufferLength) == 72);

struct RegistryHeader {
  std::byte other0[16];
  le64 length;
  std::byte other24[8];
};
static_assert(OnDisk<RegistryHeader> && sizeof(RegistryHeader) == 32);

inline constexpr uint64_t kVdiskCountAt = 36;  // u32
inline constexpr uint64_t kVdiskEntriesAt = 52;

struct VdiskEntryV6 {
  le32 id;
  std::byte other4[8];
  le32 mapBlock;
  le32 superBlockPresent;
  uint8_t uuid[16];
  std::byte other36[8];
};
static_assert(OnDisk<VdiskEntryV6> && sizeof(VdiskEntryV6) == ORLO_VDISK_ENTRY_SIZE_V6);
static_assert(offsetof(VdiskEntryV6, uuid) == 20);

struct VdiskEntry {
  le32 id;
  std::byte other4[8];
  le32 superBlockPresent;
  le64 mapBlock;
  uint8_t uuid[16];
  std::byte other40[8];
};
static_assert(OnDisk<VdiskEntry> && sizeof(VdiskEntry) == ORLO_VDISK_ENTRY_SIZE);
static_assert(offsetof(VdiskEntry, mapBlock) == 16 && offsetof(VdiskEntry, uuid) == 24);

/// The version that selects the layouts above and those of map blocks.
inline uint32_t FormatVersion(const KABDiskCtx* disk) { return disk->meta[meta::kFormatVersion]; }

/// A block number of 32 bits in the 64-bit form: all ones, no block, stays all ones.
inline uint64_t WidenBlock(uint32_t number) { return number == UINT32_MAX ? UINT64_MAX : number; }

/// What a stored vdisk entry says, whatever its version.
struct Vdisk {
  uint32_t id;
  bool superBlockPresent;
  uint64_t mapBlock;
};

inline Vdisk DecodeVdisk(const void* entry, uint32_t version) {
  if (version == 6) {
    const auto stored = Load<VdiskEntryV6>(entry);
    return {stored.id, stored.superBlockPresent != 0, WidenBlock(stored.mapBlock)};
  }
  const auto stored = Load<VdiskEntry>(entry);
  return {stored.id, stored.superBlockPresent != 0, stored.mapBlock};
}

}  // namespace kab::orlo
