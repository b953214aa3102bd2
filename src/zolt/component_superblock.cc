// The validity of a component superblock.

#include "zolt/component_superblock_format.h"

#include "core/frame/log.h"

namespace kab::zolt {
namespace {

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
