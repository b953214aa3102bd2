#ifndef KAB_DDP_H
#define KAB_DDP_H

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Sets up a disk's dedup context: reads the primary superblock into it.
 *
 * @param name  the disk's path; not consulted.
 * @return 0, or the read's status with a line on the log stream.
 */
KAB_API uint32_t DDPInitDiskCTX(KABDiskCtx *ctx, const char *name);

/**
 * Reads the primary superblock.
 *
 * @param buf     4096 bytes.
 * @param locOut  receives its byte offset on the disk; may be null.
 * @return 0, or the read's status; writes no line.
 */
KAB_API uint32_t DDPReadSuperBlk(KABDiskCtx *ctx, void *buf, uint64_t *locOut);

#ifdef __cplusplus
}
#endif

#endif
