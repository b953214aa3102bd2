#pragma once
// The first bytes of a component superblock, little-endian:
//
//    0       8               12      24           28              32          36                   40
//    | magic | major version | other | policyLen  | attributesLen | configLen | componentPolicyLen | extraParamsLen |

#include <cstddef>

#include "core/frame/bytes.h"
#include "kab/zolt.h"

namespace kab::zolt {

struct ComponentSuperBlock {
  le64 magic;
  le32 majorVersion;
  std::byte other12[12];
  le32 policyLen;  // bytes, as all lengths
  le32 attributesLen;
  le32 configLen;
  le32 componentPolicyLen;
  le32 extraParamsLen;
};
static_assert(OnDisk<ComponentSuperBlock> && sizeof(ComponentSuperBlock) == KAB_ZOLT_SBLK_CHECKED_SIZE);
static_assert(offsetof(ComponentSuperBlock, policyLen) == 24 && offsetof(ComponentSuperBlock, extraParamsLen) == 40);

inline constexpr uint64_t kMagic = 0x1F2E3D4C5B6A7890;
inline constexpr uint32_t kMajorVersion = 2;

}  // namespace kab::zolt
