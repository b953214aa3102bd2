// The validity of a component superblock. Its first bytes, little-endian:
//
//    0       8               12      24           28              32          36                   40
//    | magic | major version | other | policyLen  | attributesLen | configLen | componentPolicyLen | extraParamsLen |

#include "core/frame/bytes.h"
#include "core/frame/log.h"
#include "kab/zolt.h"

namespace kab::zolt {
namespace {

struct ComponentSuperBlock {
  le64 magic;
  le32 majorVersion;
  std::byte other12[12];
  le32 policyLen;
  le32 attributesLen;
  le32 configLen;
  le32 componentPolicyLen;
  le32 extraParamsLen;
};
static_assert(OnDisk<ComponentSuperBlock> && sizeof(ComponentSuperBlock) == KAB_ZOLT_SBLK_CHECKED_SIZE);
static_assert(offsetof(ComponentSuperBlock, policyLen) == 24 && offsetof(ComponentSuperBlock, extraParamsLen) == 40);

constexpr uint64_t kMagic = 0x1F2E3D4C5B6A7890;
constexpr uint32_t kMajorVersion = 2;

const char* FirstBrokenRule(const ComponentSuperBlock& sblk) {
  if (sblk.magic != kMagic) return "sblk magic found corrupted";
  if (sblk.majorVersion != kMajorVersion) return "sblk major version found corrupted";
  if (sblk.policyLen >= 0x10000U) return "sblk policyLen found corrupted";
  if (sblk.attributesLen >= 0x100000U) return "sblk attributesLen found corrupted";
  if (sblk.configLen >= 0x80000U) return "sblk configLen found corrupted";
  if (sblk.componentPolicyLen >= 0x20000U) return "sblk componentPolicyLen found corrupted";
  if (sblk.extraParamsLen >= 0x40000U) return "sblk extraParamsLen found corrupted";
  return nullptr;
}

}  // namespace
}  // namespace kab::zolt

uint32_t KABIsZOLTCompSblkValid(const void* sblk) {
  const char* broken = kab::zolt::FirstBrokenRule(*static_cast<const kab::zolt::ComponentSuperBlock*>(sblk));
  if (broken == nullptr) return 1;
  kab::Log("%s\n", broken);
  return 0;
}
