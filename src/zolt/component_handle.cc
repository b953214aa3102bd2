// Components as the group sees them: what the cache SSD holds of them lies over what their disks hold.

#include <algorithm>

#include "core/frame/bytes.h"
#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "core/frame/uuid_text.h"
#include "kab/core.h"
#include "kab/indexes.h"
#include "kab/orlo.h"
#include "kab/zolt.h"
#include "zoltcommon/ds/lba_table.h"

namespace kab::zolt {
namespace {

constexpr uint64_t kLeastReserve = 2097152;

KABComponentState* FindState(const KABDiskCtx* ctx, const uint8_t uuid[16]) {
  if (ctx->componentTable == nullptr) return nullptr;
  ARVOUUIDTableLink* link = ARVOUUIDTable_Find(ctx->componentTable, Load<uint64_t>(uuid), Load<uint64_t>(uuid + 8));
  if (link == nullptr) return nullptr;
  return reinterpret_cast<KABComponentState*>(reinterpret_cast<uint8_t*>(link) - offsetof(KABComponentState, link));
}

/// Byte count and key stand in each other's place, and must: tools depend on what such a read fills.
uint32_t ReadUnlogged(KABComponentHandle* handle, uint8_t* buf, uint32_t bytes, uint64_t key) {
  return OrloReadComponent(handle->orloComp, buf, bytes, static_cast<uint32_t>(key));
}

}  // namespace
}  // namespace kab::zolt

using kab::Log;

KABComponentHandle* KABComponentOpen(KABDiskCtx* ctx, const char* uuidText) {
  if (ctx->llogRecoveryComplete == 0 || ctx->plogRecoveryComplete == 0) {
    Log("ZOLT recovery was not complete.\n");
    return nullptr;
  }
  uint8_t uuid[16];
  if (!kab::ParseUuid(uuidText, uuid)) {
    Log("%s: Invalid uuid specified\n", uuidText);
    return nullptr;
  }
  auto handle = kab::AllocRecord<KABComponentHandle>();
  if (!handle) {
    Log("Failed to alloc memory for a compenent handle\n");
    return nullptr;
  }
  handle->orloComp = OrloOpenComponent(ctx, uuidText);
  if (handle->orloComp == nullptr) {
    Log("Orlo couldn't open the Comp:" KAB_UUID_FORMAT "\n", KAB_UUID_ARGS(uuid));
    return nullptr;
  }
  handle->ctx = ctx;
  handle->compState = kab::zolt::FindState(ctx, uuid);
  return handle.release();
}

uint32_t KABComponentRead(KABComponentHandle* handle, void* buf, uint32_t length, uint64_t offset) {
  KABDiskCtx* ctx = handle->ctx;
  auto* bytes = static_cast<uint8_t*>(buf);
  uint64_t key = std::max(uint64_t{ctx->metaReserve}, kab::zolt::kLeastReserve) + offset;
  if (handle->compState == nullptr) return kab::zolt::ReadUnlogged(handle, bytes, length, key);
  if (length == 0) return KAB_OK;

  uint32_t remaining = length;
  ZOLTLbaTableCursor cursor;
  for (;;) {
    ZOLTLbaRange* range = nullptr;
    if (kab::ds::FindRange(&handle->compState->lbaTable, key, &cursor, &range) != KAB_OK) return KAB_OUT_OF_MEMORY;
    if (range == nullptr || range->start > key + remaining - 1 || range->start + range->length - 1 < key) break;
    if (range->start > key) {
      const auto gap = static_cast<uint32_t>(range->start - key);
      const uint32_t st = kab::zolt::ReadUnlogged(handle, bytes, gap, key);
      if (st != KAB_OK) return st;
      bytes += gap;
      key += gap;
      remaining -= gap;
    }
    const uint64_t within = key - range->start;
    const auto piece = static_cast<uint32_t>(std::min(range->length - within, uint64_t{remaining}));
    const uint64_t ssdOffset = range->address + ctx->dataOffset + within;
    const uint32_t st = KABRead(ctx, bytes, piece, static_cast<int64_t>(ssdOffset));
    if (st != KAB_OK) return st;
    if (piece == remaining) return KAB_OK;
    bytes += piece;
    key += piece;
    remaining -= piece;
  }
  return kab::zolt::ReadUnlogged(handle, bytes, remaining, key);
}

void KABComponentClose(KABComponentHandle* handle) {
  if (handle == nullptr) return;
  OrloCloseComponent(handle->orloComp);
  KABFree(&handle);
}
