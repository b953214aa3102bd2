#ifndef KAB_ZOLT_H
#define KAB_ZOLT_H

/**
 * @file
 * Component handles: a component as its disk group sees it, its newest writes taken from the cache SSD.
 *
 * Threads: one thread at a time per disk group.
 */

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { KAB_ZOLT_SBLK_CHECKED_SIZE = 44 /**< bytes of a component superblock that its validity test reads */ };

/**
 * Opens a component.
 *
 * @param ctx       the group's SSD, with PLOG and LLOG replayed; borrowed, as its component table's record is: both
 *                  must outlive the handle.
 * @param uuidText  the component's UUID text.
 * @return a handle for KABComponentClose, or null with the reason on the log stream.
 */
KAB_API KABComponentHandle *KABComponentOpen(KABDiskCtx *ctx, const char *uuidText);

/**
 * Reads a component. With start = the larger of the context's `metaReserve` and 2097152, plus `offset`: pieces that
 * the component's LBA table places on the SSD are read from there. The others go to OrloReadComponent with the byte
 * count in the place of its offset and the key, start plus the bytes done so far, in the place of its length: such a
 * read fills as many bytes as the low 32 bits of its key say, from its piece's place in `buf` on. Tools that want the
 * component's bytes walk the LBA table over OrloReadComponent themselves.
 *
 * @param handle  of KABComponentOpen.
 * @param buf     start + 2 * `length` bytes.
 * @param length  bytes.
 * @param offset  bytes from the start of the component's data.
 * @return 0 or the first failing status.
 */
KAB_API uint32_t KABComponentRead(KABComponentHandle *handle, void *buf, uint32_t length, uint64_t offset);

/** Closes the Orlo component and releases the handle. */
KAB_API void KABComponentClose(KABComponentHandle *handle);

/**
 * Tests a component superblock.
 *
 * @param sblk  KAB_ZOLT_SBLK_CHECKED_SIZE bytes.
 * @return 1; 0 with the first broken rule on the log stream.
 */
KAB_API uint32_t KABIsZOLTCompSblkValid(const void *sblk);

#ifdef __cplusplus
}
#endif

#endif
