// Transfers on an open disk: plain or through the cipher, as the disk asks.

#include "kab/core.h"
#include "kab/crypto.h"

uint32_t KABIO(uint32_t direction, KABDiskCtx* ctx, void* buf, uint32_t length, int64_t offset) {
  if (ctx->encrypted != 0) return KABEncryptedIO(direction, ctx, buf, length, offset);
  return KABDiskIO(direction, static_cast<uint32_t>(ctx->fd), buf, length, offset);
}

uint32_t KABRead(KABDiskCtx* ctx, void* buf, uint32_t length, int64_t offset) {
  return KABIO(1, ctx, buf, length, offset);
}

uint32_t KABWrite(KABDiskCtx* ctx, const void* buf, uint32_t length, int64_t offset) {
  return KABIO(0, ctx, const_cast<void*>(buf), length, offset);
}

void KABSetDumpFile(KABDiskCtx* ctx, KABDumpCtx* dump) { ctx->dumpFile = dump; }
