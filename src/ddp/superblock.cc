// The dedup superblock: where the layer's area begins and what its first block says.

#include "core/frame/log.h"
#include "kab/core.h"
#include "kab/ddp.h"

namespace kab::ddp {
namespace {

constexpr uint64_t kSuperBlkOffset = 0x300000;
constexpr uint32_t kBlockSize = 4096;

}  // namespace
}  // namespace kab::ddp

uint32_t DDPReadSuperBlk(KABDiskCtx* ctx, void* buf, uint64_t* locOut) {
  if (locOut != nullptr) *locOut = kab::ddp::kSuperBlkOffset;
  return KABRead(ctx, buf, kab::ddp::kBlockSize, kab::ddp::kSuperBlkOffset);
}

uint32_t DDPInitDiskCTX(KABDiskCtx* ctx, const char* /*name*/) {
  KABDedupCtx& dedup = ctx->dedupCtx;
  dedup.superBlk = dedup.superBlkBuf;
  const uint32_t st = DDPReadSuperBlk(ctx, dedup.superBlk, &dedup.superBlkLoc);
  if (st != KAB_OK) {
    kab::Log("%s: Error: Failed to read dedupe super block\n", ctx->uuidText);
    return st;
  }
  dedup.blkShift = KABLog2(kab::ddp::kBlockSize);
  return KAB_OK;
}
