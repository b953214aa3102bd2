#include "ssdlog/plog_state.h"

#include "kab/core.h"
#include "kab/ssdlog.h"

namespace kab::ssdlog {

void ReleasePlaceholders(KABDiskCtx* ssd) {
  for (KABDiskCtx*& slot : ssd->disks) {  // slots may be sparse
    if (slot == nullptr || slot->placeholder == 0) continue;
    if (slot->plogState != ssd->plogState) KABFreePlogState(&slot->plogState);
    KABFree(&slot);
  }
}

void FreeComponentTable(KABDiskCtx* ssd) { KABFree(&ssd->componentTable); }

}  // namespace kab::ssdlog

void KABFreePlogState(KABPlogState** state) { KABFree(state); }

void KABPLOGFreeBlCaches(KABDiskCtx* ctx) { ctx->plogCachesInitialised = 0; }
