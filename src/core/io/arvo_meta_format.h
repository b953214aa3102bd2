#pragma once
// Where a disk keeps what every Arvo disk has, in bytes from its start:
//
//    1 MiB                 1049600            1050112               3 MiB             end - 16896
//    | Arvo metadata 4096  | encryption 512   | AWS encryption 512  | data area ...   | secondary GPT |
//
// The encryption metadata lies within the Arvo metadata block's 4096 bytes.

#include <cstdint>

namespace kab {

inline constexpr uint64_t kArvoMetaOffset = 1048576;
inline constexpr uint64_t kEncrMetaOffset = 1049600;
inline constexpr uint64_t kAwsEncrMetaOffset = 1050112;
inline constexpr uint32_t kEncrMetaSize = 512;
inline constexpr uint64_t kDataOffset = 3145728;
inline constexpr uint64_t kSecondaryGptSize = 16896;  // 33 sectors

// The Arvo metadata block, byte offsets:
//
//    8         type: 11 selects the second layout
//    9         type 11: bits 0-2 mount state, bit 3 encrypted, bit 7 which UUID names the key
//    10 .. 25  type 11: disk UUID
//    11        else: bits 2-3 dedup mode, bits 5-7 mount state
//    12 .. 27  else: disk UUID
//    60 .. 171 SSD: UUIDs of the group's capacity disks by device index
//    172 .. 187 type 11: alternate UUID
//    468       disk format version
namespace meta {
inline constexpr uint32_t kType = 8;
inline constexpr uint32_t kState11 = 9;
inline constexpr uint32_t kUuid11 = 10;
inline constexpr uint32_t kState = 11;
inline constexpr uint32_t kUuid = 12;
inline constexpr uint32_t kGroupUuids = 60;
inline constexpr uint32_t kAltUuid11 = 172;
inline constexpr uint32_t kFormatVersion = 468;
inline constexpr uint32_t kUuidSize = 16;
inline constexpr uint8_t kType11 = 11;
}  // namespace meta

/// The second layout of the metadata block.
inline bool IsType11(const uint8_t* metaBlock) { return metaBlock[meta::kType] == meta::kType11; }

/// 0 when the disk was not cleanly unmounted.
inline uint32_t MountState(const uint8_t* metaBlock) {
  return IsType11(metaBlock) ? metaBlock[meta::kState11] & 7U : metaBlock[meta::kState] >> 5U;
}

/// 1 or 2 on a disk with the dedup layer; in mode 2 the disk shares its group's PLOG state. A type 11 disk has none:
/// the byte is part of its UUID.
inline uint32_t DedupMode(const uint8_t* metaBlock) {
  return IsType11(metaBlock) ? 0 : (metaBlock[meta::kState] >> 2U) & 3U;
}

}  // namespace kab
