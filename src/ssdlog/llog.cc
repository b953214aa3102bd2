// The LLOG is walked and judged; what its entries mean to components is not replayed.

#include "core/frame/log.h"
#include "kab/core.h"
#include "kab/ssdlog.h"
#include "ssdlog/log_block.h"
#include "ssdlog/log_walk.h"

namespace kab::ssdlog {
namespace {

uint32_t CheckBlock(KABDiskCtx* ctx, const LogWalk& walk, uint64_t prevOffset) {
  if (KABSSDLOGCheckLogBlkHdr(ctx, walk.Block(), prevOffset, walk.Header().logType) == 0) {
    Log("%s: MetaError: Invalid LLOG log block %lu\n", ctx->uuidText, walk.BlkNo());
    return KAB_BLOCK_INVALID;
  }
  const Bytes block(walk.Block(), kBlockSize);
  uint64_t at = sizeof(LogBlockHeader);
  for (uint32_t left = walk.Header().entryCount; left != 0; --left) {
    const auto* prefix = At<EntryPrefix>(block, at);
    if (prefix == nullptr || prefix->entryLength > kBlockSize - at || KABSSDLOGCheckLogEntryPrefix(ctx, prefix) == 0) {
      Log("%s: MetaError: Invalid entry at byte %lu of LLOG log block %lu\n", ctx->uuidText, at, walk.BlkNo());
      return KAB_BLOCK_INVALID;
    }
    at += prefix->entryLength;
  }
  return KAB_OK;
}

}  // namespace
}  // namespace kab::ssdlog

uint32_t KABSSDLOGRecovLlogLog(KABDiskCtx* ctx) {
  using namespace kab::ssdlog;
  if (ctx->llogRecoveryComplete != 0) return KAB_OK;
  const CheckpointRecord* record = CurrentRecord(ctx);
  if (record == nullptr) return KAB_NO_CHECKPOINT;
  if (record->llogFirst == kInvalidBlk) {
    if (KABSSDLOGComponentTable(ctx) == nullptr) return KAB_OUT_OF_MEMORY;
    ctx->llogRecoveryComplete = 1;
    return KAB_OK;
  }

  uint64_t entries = 0;
  uint64_t prevOffset = 0;  // the first block's back link leads out of the log
  LogWalk walk(ctx, LogKind::kLlog);
  uint32_t st = walk.Next();
  for (; st == KAB_OK; st = walk.Next()) {
    st = CheckBlock(ctx, walk, prevOffset);
    if (st != KAB_OK) return st;
    entries += walk.Header().entryCount;
    prevOffset = walk.Offset();
  }
  if (st != KAB_END_OF_LOG) return st;
  kab::Log("%s: Error: LLOG holds %lu entries, replay is not supported\n", ctx->uuidText, entries);
  return KAB_NOT_SUPPORTED;
}
