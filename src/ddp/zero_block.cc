// The all-zero block is stored once: its hash map entry is found and noted in the contexts.

#include <cstring>

#include "core/frame/log.h"
#include "ddp/regions_format.h"
#include "ddp/superblock.h"
#include "kab/core.h"
#include "kab/ddp.h"

namespace kab::ddp {
namespace {

constexpr uint32_t kCompressionZeroSlot = kHashEntriesPerBlk - 1;

// How many capacity disks a group is to have: its table names them.
uint32_t ListedMembers(const KABDiskCtx& group) {
  uint32_t members = 0;
  for (uint32_t slot = 0; slot < KAB_DISKS_PER_GROUP; ++slot) members += IsListedMember(group, slot) ? 1 : 0;
  return members;
}

void Note(KABDiskCtx* ctx, uint64_t hashIndex, const HashEntry& entry) {
  ctx->dedupCtx.zeroHashIdx = hashIndex;
  ctx->dedupCtx.zeroPbn = entry.pbn;
  ctx->dedupCtx.zeroBlkTag = entry.tag;
}

}  // namespace
}  // namespace kab::ddp

uint32_t KABDDPPopulateZeroBlkDetails(KABDiskCtx* groupCtx, uint32_t* devOut, uint64_t* blkOut, uint32_t* slotOut,
                                      uint32_t* valueOut) {
  if (groupCtx->openDiskCount != kab::ddp::ListedMembers(*groupCtx)) {
    kab::Log("%s: Error: All capacity devices are not opened, cannot update zero blk details.\n", groupCtx->uuidText);
    return KAB_GENERAL_FAILURE;
  }
  uint8_t hash[DDP_HASH_SIZE];
  DDPInitKnownHash(hash);
  uint64_t hashIndex = 0;
  kab::ddp::HashEntry entry;
  const uint32_t st =
      DDPLookupHash(groupCtx, hash, &hashIndex, devOut, blkOut, slotOut, reinterpret_cast<uint8_t*>(&entry));
  if (st != KAB_OK) {
    kab::Log("%s: Failed to find zero hash PBN: %s\n", groupCtx->uuidText, KABErrorStr(st));
    return st;
  }
  kab::ddp::Note(groupCtx, hashIndex, entry);
  for (KABDiskCtx* member : groupCtx->disks) {
    if (member != nullptr) kab::ddp::Note(member, hashIndex, entry);
  }
  *valueOut = entry.value;
  return KAB_OK;
}

uint32_t KABCompressionPopulateZeroBlkDetails(KABDiskCtx* ctx) {
  uint8_t hash[DDP_HASH_SIZE];
  DDPInitKnownHash(hash);
  kab::ddp::HashMapBlk blk;
  const uint32_t st = DDPReadHashMapBlks(ctx, 0, 1, &blk, nullptr);
  if (st != KAB_OK) {
    kab::Log("%s: Error: Failed to read zero hash blk: %s\n", ctx->uuidText, KABErrorStr(st));
    return st;
  }
  const kab::ddp::HashEntry& entry = blk.entries[kab::ddp::kCompressionZeroSlot];
  if (std::memcmp(entry.hash, hash, sizeof hash) != 0) {
    kab::Log("%s: Failed to find zero hash PBN\n", ctx->uuidText);
    return KAB_NOT_FOUND;
  }
  kab::ddp::Note(ctx, kab::ddp::kCompressionZeroSlot, entry);
  return KAB_OK;
}
