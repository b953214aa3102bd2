#ifndef KAB_SSDLOG_H
#define KAB_SSDLOG_H

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Destroys a PLOG state's tables, releases it and clears the pointer; a null state is allowed. */
KAB_API void KABFreePlogState(KABPlogState **state);

/** Destroys both Bucketlist caches of the context and clears their flag. */
KAB_API void KABPLOGFreeBlCaches(KABDiskCtx *ctx);

#ifdef __cplusplus
}
#endif

#endif
