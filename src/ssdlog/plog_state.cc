#include "ssdlog/plog_state.h"

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "kab/indexes.h"
#include "kab/ssdlog.h"

namespace kab::ssdlog {
namespace {

constexpr uint32_t kLbaTupleSize = 5;
constexpr uint32_t kLsnTupleSize = 4;
constexpr uint32_t kBlockLength = 4096;
constexpr uint32_t kSingleBlockClass = 7;
constexpr uint32_t kClassLengths[8] = {0, 262144, 131072, 65536, 16384, 8192, 4096, 4096};  // 0: the longest write's
constexpr uint32_t kComponentBuckets = 1024;

uint32_t MatchComponent(const ARVOUUIDTableLink* link, uint64_t keyLow, uint64_t keyHigh, uint64_t /*extra1*/,
                        uint64_t /*extra2*/) {
  const auto* record = reinterpret_cast<const KABComponentState*>(reinterpret_cast<const uint8_t*>(link) -
                                                                  offsetof(KABComponentState, link));
  return record->uuidLow == keyLow && record->uuidHigh == keyHigh;
}

}  // namespace

uint32_t SizeClass(uint32_t length) {
  if (length == kBlockLength) return kSingleBlockClass;
  uint32_t sizeClass = 6;
  while (sizeClass != 0 && length > kClassLengths[sizeClass]) --sizeClass;
  return sizeClass;
}

uint32_t ClassLength(uint32_t sizeClass, const KABPlogState& state) {
  return sizeClass == 0 ? static_cast<uint32_t>(state.maxWriteLength) : kClassLengths[sizeClass];
}

uint64_t ReleaseDisplaced(uint64_t /*address*/, uint64_t length, uint64_t /*start*/, uint64_t data, uint64_t /*owner*/,
                          uint64_t state) {
  const uint32_t sizeClass = ClassOf(data);
  if (length != kBlockLength || sizeClass != kSingleBlockClass) return sizeClass;
  auto* plogState = reinterpret_cast<KABPlogState*>(state);
  ZOLTIndexMapCursor cursor;
  const uint32_t st = ZOLTIndexMap_Find(&plogState->indexMap, data & kLsnMask, &cursor);
  return st != 0 ? st : ZOLTIndexMap_Remove(&plogState->indexMap, &cursor);
}

void ReleasePlaceholders(KABDiskCtx* ssd) {
  for (KABDiskCtx*& slot : ssd->disks) {  // slots may be sparse
    if (slot == nullptr || slot->placeholder == 0) continue;
    if (slot->plogState != ssd->plogState) KABFreePlogState(&slot->plogState);
    KABFree(&slot);
  }
}

void FreeComponentTable(KABDiskCtx* ssd) {
  ARVOUUIDTable_Free(ssd->componentTable);
  ssd->componentTable = nullptr;
}

}  // namespace kab::ssdlog

uint32_t KABSSDLOGInitPLOGState(KABDiskCtx* ctx, BucketlistCache* lbaCache, BucketlistCache* lsnCache) {
  using namespace kab::ssdlog;
  ctx->plogState = kab::AllocRecord<KABPlogState>().release();
  if (ctx->plogState == nullptr) {
    kab::Log("%s: Error: Failed to allocate PLOG state\n", ctx->uuidText);
    return KAB_OUT_OF_MEMORY;
  }
  const uint32_t st = ZOLTLbaTable_Init(&ctx->plogState->lbaTable, lbaCache, kLbaTupleSize);
  if (st != KAB_OK) {
    kab::Log("%s: Error: Failed to initialize lbaTable :%s\n", ctx->uuidText, KABErrorStr(st));
    KABFree(&ctx->plogState);
    return st;
  }
  ZOLTIndexMap_Init(&ctx->plogState->indexMap, lsnCache, kLsnTupleSize);
  ctx->plogState->owner = ctx;
  return KAB_OK;
}

void KABFreePlogState(KABPlogState** state) {
  if (*state == nullptr) return;
  ZOLTLbaTable_Destroy(&(*state)->lbaTable);
  // Initialised after the LBA table, so its tuple size tells whether it was.
  if ((*state)->indexMap.list.tupleSize != 0) ZOLTIndexMap_Destroy(&(*state)->indexMap);
  KABFree(state);
}

void KABPLOGFreeBlCaches(KABDiskCtx* ctx) {
  Bucketlist_CacheDestroy(&ctx->blPLOGLbaCache);
  Bucketlist_CacheDestroy(&ctx->blPLOGLsnCache);
  ctx->plogCachesInitialised = 0;
}

ARVOUUIDTable* KABSSDLOGComponentTable(KABDiskCtx* ssd) {
  using namespace kab::ssdlog;
  if (ssd->componentTable == nullptr) {
    ssd->componentTable = ARVOUUIDTable_Init(ssd, kComponentBuckets, MatchComponent);
  }
  return ssd->componentTable;
}
