// The group's hash map: its blocks are dealt out to the members in order, H to each.

#include <cstring>

#include "core/frame/log.h"
#include "ddp/regions.h"
#include "ddp/regions_format.h"
#include "kab/checksum.h"
#include "kab/core.h"
#include "kab/ddp.h"

namespace kab::ddp {
namespace {

constexpr uint32_t kSlotBits = 7;
constexpr uint64_t kLargestGlobalBlk = 0x1FFFFFFFFFE;

// A block of the group's map. A forged H gives member numbers of any size.
struct Place {
  uint64_t dev;
  uint64_t blk;
};

Place PlaceOf(const KABDiskCtx& group, uint64_t globalBlk) {
  const uint64_t perMember = group.dedupCtx.avgHmapSize;
  if (perMember == 0) return {0, 0};
  return {globalBlk / perMember, globalBlk % perMember};
}

// Not cut off at 32 bits: the number of another member would come out.
uint32_t Narrow(uint64_t dev) { return dev > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(dev); }

}  // namespace
}  // namespace kab::ddp

uint32_t DDPMapHashIndexToDev(KABDiskCtx* groupCtx, uint64_t hashIndex, uint32_t* devOut, uint64_t* blkOut,
                              uint32_t* slotOut) {
  const uint64_t globalBlk = hashIndex >> kab::ddp::kSlotBits;
  if (globalBlk <= kab::ddp::kLargestGlobalBlk) {
    *slotOut = static_cast<uint32_t>(hashIndex % (1U << kab::ddp::kSlotBits));
  }
  const kab::ddp::Place place = kab::ddp::PlaceOf(*groupCtx, globalBlk);
  *devOut = kab::ddp::Narrow(place.dev);
  *blkOut = place.blk;
  return KAB_OK;
}

uint32_t DDPReadHashMapBlkByIndex(KABDiskCtx* groupCtx, uint64_t hashIndex, void* buf, uint32_t* devOut,
                                  uint64_t* blkOut, uint32_t* slotOut, uint64_t* locOut) {
  uint32_t dev = 0;
  uint64_t blk = 0;
  uint32_t slot = 0;
  DDPMapHashIndexToDev(groupCtx, hashIndex, &dev, &blk, slotOut != nullptr ? slotOut : &slot);
  if (devOut != nullptr) *devOut = dev;
  if (blkOut != nullptr) *blkOut = blk;
  KABDiskCtx* member = kab::ddp::FindMember(groupCtx, dev);
  if (member == nullptr) return KAB_NOT_MAPPED;
  return DDPReadHashMapBlks(member, blk, 1, buf, locOut);
}

uint32_t DDPWriteHashMapBlkByIndex(KABDiskCtx* groupCtx, uint64_t hashIndex, const void* buf) {
  uint32_t dev = 0;
  uint64_t blk = 0;
  uint32_t slot = 0;
  DDPMapHashIndexToDev(groupCtx, hashIndex, &dev, &blk, &slot);
  KABDiskCtx* member = kab::ddp::FindMember(groupCtx, dev);
  if (member == nullptr) return KAB_NOT_MAPPED;
  return DDPWriteHashMapBlks(member, blk, 1, buf);
}

uint32_t DDPGetHashBlockFromHash(KABDiskCtx* groupCtx, const uint8_t* hash, uint32_t* devOut, uint64_t* blkOut,
                                 uint64_t* globalOut) {
  const KABDedupCtx& stats = groupCtx->dedupCtx;
  uint64_t blks = 0;
  if (__builtin_mul_overflow(uint64_t{stats.memberCount}, stats.avgHmapSize, &blks)) blks = ~uint64_t{0};
  uint64_t h = 0;
  plinth_HashBytes(hash, DDP_HASH_SIZE, &h);
  const uint64_t globalBlk = blks == 0 ? 0 : h % blks;
  const kab::ddp::Place place = kab::ddp::PlaceOf(*groupCtx, globalBlk);
  *globalOut = globalBlk;
  *devOut = kab::ddp::Narrow(place.dev);
  *blkOut = place.blk;
  return KAB_OK;
}

uint32_t DDPLookupHash(KABDiskCtx* groupCtx, const uint8_t* hash, uint64_t* hashIndexOut, uint32_t* devOut,
                       uint64_t* blkOut, uint32_t* slotOut, uint8_t* entryOut) {
  using kab::ddp::HashMapBlk;
  uint64_t globalBlk = 0;
  DDPGetHashBlockFromHash(groupCtx, hash, devOut, blkOut, &globalBlk);
  KABDiskCtx* member = kab::ddp::FindMember(groupCtx, *devOut);
  if (member == nullptr) return KAB_NOT_MAPPED;
  HashMapBlk blk;
  const uint32_t st = DDPReadHashMapBlks(member, *blkOut, 1, &blk, nullptr);
  if (st != KAB_OK) {
    kab::Log("%s: Error: Failed to read hmap blk: %s\n", member->uuidText, KABErrorStr(st));
    return st;
  }
  for (uint32_t slot = kab::ddp::kHashEntriesPerBlk; slot-- > 0;) {
    const kab::ddp::HashEntry& entry = blk.entries[slot];
    if (std::memcmp(entry.hash, hash, sizeof entry.hash) != 0) continue;
    *slotOut = slot;
    *hashIndexOut = slot | (globalBlk << kab::ddp::kSlotBits);
    std::memcpy(entryOut, &entry, sizeof entry);
    return KAB_OK;
  }
  return KAB_NOT_FOUND;
}
