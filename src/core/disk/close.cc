// Ending a disk context: every owner of a field is asked to release it.

#include <unistd.h>

#include "kab/core.h"
#include "kab/ssdlog.h"
#include "plinth/cipher.h"
#include "plinth/lock.h"
#include "ssdlog/plog_state.h"

uint32_t KABCloseDisk(KABDiskCtx* ctx) {
  if (ctx->group != nullptr) {
    KABDiskCtx* group = ctx->group;
    group->disks[ctx->devIdx] = nullptr;
    --group->openDiskCount;
    if (ctx->plogState != nullptr && ctx->plogState != group->plogState) {
      // Opened again, the disk must not pass for one whose log was replayed.
      if (group->plogRecoveryComplete != 0) {
        group->plogStateGivenUp |= static_cast<uint8_t>(1U << static_cast<uint32_t>(ctx->devIdx));
      }
      KABFreePlogState(&ctx->plogState);
    }
    ctx->plogState = nullptr;
    ctx->group = nullptr;  // closed twice, it must not detach whoever took the slot since
  } else {
    if (ctx->openDiskCount != 0) return KAB_BUSY;
    kab::ssdlog::ReleasePlaceholders(ctx);
    kab::ssdlog::FreeComponentTable(ctx);
    if (ctx->plogState != nullptr) KABFreePlogState(&ctx->plogState);
  }
  if (ctx->plogCachesInitialised != 0) KABPLOGFreeBlCaches(ctx);
  if (ctx->fd >= 0) close(ctx->fd);
  ctx->fd = -1;
  kab::plinth::KeyRelease(ctx->cryptoKey);
  ctx->cryptoKey = nullptr;
  kab::plinth::LockDestroy(ctx->lock);
  ctx->lock = nullptr;
  return KAB_OK;
}
