#ifndef KAB_DDP_H
#define KAB_DDP_H

/**
 * @file
 * The dedup layer of a capacity disk: its superblock, its metadata regions, its packed blocks.
 *
 * The layer's area starts 3 MiB into the disk and is counted in blocks of 4096 bytes; data is counted in units of
 * 2048 bytes. A PBN names a block or unit of a group: bits 0-39 the number within the area of its disk, bits 40-43
 * the block type, bits 44-63 the index of the disk. Logical addresses are bytes, 4096 to a logical block.
 *
 * Every operation on a disk whose dedup context was never set up returns 7, or 0 where the result is a truth value.
 * Threads: one at a time per disk group.
 */

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  DDP_BLK_SUPER = 1,
  DDP_BLK_TXN_SUPER = 2,
  DDP_BLK_BITMAP = 3,
  DDP_BLK_HASH_MAP = 4,
  DDP_BLK_XMAP = 5,
  DDP_BLK_DATA = 7,
  DDP_BLK_META_BMAP_HMAP = 8,
  DDP_BLK_META_BMAP_BMAP = 9,
  DDP_BLK_META_BMAP_XMAP = 10,
  DDP_PACKED_RECORD_SIZE = 10,
  DDP_HASH_ENTRY_SIZE = 34,
  DDP_HASH_SIZE = 20
};

/* ---- Superblock ---------------------------------------------------------------------------------------------- */

/**
 * Sets up a disk's dedup context: reads the primary superblock into it.
 *
 * @param ctx   the disk, open.
 * @param name  the disk's path; not consulted.
 * @return 0, or the read's status with a line on the log stream.
 */
KAB_API uint32_t DDPInitDiskCTX(KABDiskCtx *ctx, const char *name);

/**
 * Reads the primary superblock.
 *
 * @param ctx     the disk, open.
 * @param buf     4096 bytes.
 * @param locOut  receives its byte offset on the disk; may be null.
 * @return 0, or the read's status; writes no line.
 */
KAB_API uint32_t DDPReadSuperBlk(KABDiskCtx *ctx, void *buf, uint64_t *locOut);

/** The same for the secondary superblock, which lies behind the hash map that the context's superblock names. */
KAB_API uint32_t DDPReadSecSuperBlk(KABDiskCtx *ctx, void *buf, uint64_t *locOut);

/**
 * Whether a metadata block's header names its type, owner and place, and its checksum is right.
 *
 * @param ctx    the disk, whose superblock says owner and region.
 * @param block  4096 bytes.
 * @param type   1 to 10.
 * @param index  its number within the region of that type.
 * @return 1 or 0; writes no line.
 */
KAB_API uint32_t DDPIsValidBlkHdr(KABDiskCtx *ctx, const void *block, uint32_t type, uint64_t index);

/**
 * Checks the context's superblock against the layout rules, and corrects it in memory, with a line for every field.
 *
 * @param ctx       the disk, its dedup context set up.
 * @param fixedOut  1 when the superblock is a dedup superblock: its checksum was computed anew.
 * @return 1, or 0 when it is no dedup superblock.
 */
KAB_API uint32_t DDPValidateSuperBlk(KABDiskCtx *ctx, uint8_t *fixedOut);

/** Reports, a line each, the fields in which the secondary superblock differs from the context's. */
KAB_API void DDPCompareSuperBlks(KABDiskCtx *ctx);

/** Counts members with a hash map, blocks and hash map blocks of a group into its leading context. */
KAB_API void DDPUpdateBlkStatsForDG(KABDiskCtx *groupCtx);

/** Writes the 20-byte hash under which an all-zero block is known. */
KAB_API void DDPInitKnownHash(uint8_t *out);

/* ---- Regions --------------------------------------------------------------------------------------------------

   `index` counts blocks from the region's start; `count` is in blocks, of which the low 20 bits count; `buf` holds
   them. Locations are byte offsets on the disk. Unless said otherwise: neither index nor header is checked, the
   status is that of the transfer (1 for a place beyond 63 bits), no line is written, `locOut` may be null. */

/** The transaction superblock, at its place in the superblock. */
KAB_API uint32_t DDPReadTxnSBlk(KABDiskCtx *ctx, void *buf, uint64_t *locOut);
/** The transaction superblock of a compression-only disk, at its fixed place. `locOut` must not be null. */
KAB_API uint32_t CompressionReadTxnBlk(KABDiskCtx *ctx, void *buf, uint64_t *locOut);
/** Blocks of the hash map. */
KAB_API uint32_t DDPReadHashMapBlks(KABDiskCtx *ctx, uint64_t index, uint32_t count, void *buf, uint64_t *locOut);
/** Writes blocks of the hash map. */
KAB_API uint32_t DDPWriteHashMapBlks(KABDiskCtx *ctx, uint64_t index, uint32_t count, const void *buf);
/** Blocks of the bitmap. */
KAB_API uint32_t DDPReadBitmapBlks(KABDiskCtx *ctx, uint64_t index, uint32_t count, void *buf, uint64_t *locOut);
/** Writes blocks of the bitmap, its first copy only. */
KAB_API uint32_t DDPWriteBitmapBlks(KABDiskCtx *ctx, uint64_t index, uint32_t count, const void *buf);
/** A map bitmap by its type, 8 to 10; any other: 12. */
KAB_API uint32_t DDPReadMapBitmapBlks(KABDiskCtx *ctx, uint64_t index, uint32_t count, uint32_t type, void *buf);
/** Blocks at `start` + `relIndex` of the area; `index` is the caller's own and not consulted. */
KAB_API uint32_t DDPReadXmap(KABDiskCtx *ctx, uint64_t start, uint64_t relIndex, uint64_t index, uint32_t count,
                             void *buf, uint64_t *locOut);
/** The translation map, from index xmapSize on its expansion; 12 for a read across the end of the map proper. */
KAB_API uint32_t DDPReadXMapBlks(KABDiskCtx *ctx, uint64_t index, uint32_t count, void *buf, uint64_t *locOut);
/** The map proper only: an index in the expansion is not redirected. */
KAB_API uint32_t DDPWriteXMapBlks(KABDiskCtx *ctx, uint64_t index, uint32_t count, const void *buf);
/** DDPReadXMapBlks from the second copy, and from the second half of the expansion. */
KAB_API uint32_t DDPReadSecXMapBlks(KABDiskCtx *ctx, uint64_t index, uint32_t count, void *buf, uint64_t *locOut);

/**
 * Where a block of the secondary copy lies.
 *
 * @param ctx     the disk, its dedup context set up.
 * @param copy    not consulted.
 * @param index   the block's number within its region.
 * @param count   not consulted.
 * @param type    2, 3, 4, 8, 9 or 10; any other: 12.
 * @param locOut  must not be null.
 */
KAB_API uint32_t DDPGetSecMetadataBlkOffset(KABDiskCtx *ctx, uint32_t copy, uint64_t index, uint32_t count,
                                            uint32_t type, uint64_t *locOut);
/** Blocks of the secondary copy, by type as in DDPGetSecMetadataBlkOffset. */
KAB_API uint32_t DDPReadMetadataBlks(KABDiskCtx *ctx, uint32_t copy, uint64_t index, uint32_t count, uint32_t type,
                                     void *buf, uint64_t *locOut);
/** Blocks of the bitmap's second copy. */
KAB_API uint32_t DDPReadSecBitmapBlks(KABDiskCtx *ctx, uint64_t index, uint32_t count, void *buf, uint64_t *locOut);
/** DDPReadMapBitmapBlks from the second copy. */
KAB_API uint32_t DDPReadSecMapBitmapBlks(KABDiskCtx *ctx, uint64_t index, uint32_t count, uint32_t type, void *buf);

/* ---- Hash map ------------------------------------------------------------------------------------------------ */

/**
 * The place of a hash index: bits 0-6 the entry's number, the rest the group's hash map block.
 *
 * @param groupCtx   the group, its statistics up to date.
 * @param hashIndex  any value.
 * @param devOut     member; the largest 32-bit value when it needs more bits.
 * @param blkOut     hash map block of that member.
 * @param slotOut    entry, 0 to 127; left alone for block numbers above 0x1FFFFFFFFFE.
 * @return always 0.
 */
KAB_API uint32_t DDPMapHashIndexToDev(KABDiskCtx *groupCtx, uint64_t hashIndex, uint32_t *devOut, uint64_t *blkOut,
                                      uint32_t *slotOut);

/** Maps the index and reads that block. 8 with a line when the member is not there. Any output may be null. */
KAB_API uint32_t DDPReadHashMapBlkByIndex(KABDiskCtx *groupCtx, uint64_t hashIndex, void *buf, uint32_t *devOut,
                                          uint64_t *blkOut, uint32_t *slotOut, uint64_t *locOut);

/** Maps the index and writes that block. 8 with a line when the member is not there. */
KAB_API uint32_t DDPWriteHashMapBlkByIndex(KABDiskCtx *groupCtx, uint64_t hashIndex, const void *buf);

/** The hash map block that may hold a 20-byte hash. Always 0; the statistics must be up to date. */
KAB_API uint32_t DDPGetHashBlockFromHash(KABDiskCtx *groupCtx, const uint8_t *hash, uint32_t *devOut, uint64_t *blkOut,
                                         uint64_t *globalOut);

/**
 * Finds a hash's entry.
 *
 * @param groupCtx      the group, its statistics up to date.
 * @param hash          20 bytes.
 * @param hashIndexOut  hash index of the entry.
 * @param devOut        member that holds it.
 * @param blkOut        hash map block of that member.
 * @param slotOut       entry in the block.
 * @param entryOut      the 34 bytes of the entry.
 * @return 0; 13 without a line when there is none; 8 or the status of the read, each with a line.
 */
KAB_API uint32_t DDPLookupHash(KABDiskCtx *groupCtx, const uint8_t *hash, uint64_t *hashIndexOut, uint32_t *devOut,
                               uint64_t *blkOut, uint32_t *slotOut, uint8_t *entryOut);

/* ---- Bitmap -------------------------------------------------------------------------------------------------- */

/**
 * The bit of a PBN, in the bitmap of `ctx` whatever disk the PBN names.
 *
 * @param ctx       the disk whose bitmap is read.
 * @param pbn       of a unit of the data region.
 * @param inUseOut  1 or 0.
 * @return 0; the status of the read with a line; 8 with a line when the member that the PBN names is not there.
 */
KAB_API uint32_t DDPIsPBNInUse(KABDiskCtx *ctx, uint64_t pbn, uint8_t *inUseOut);

/** Sets or clears that bit on the disk; nothing is written when it already is so. Not checked against the region. */
KAB_API uint32_t DDPMarkPBNInBitmap(KABDiskCtx *ctx, uint64_t pbn, uint8_t set);

/* ---- Packed blocks ------------------------------------------------------------------------------------------- */

/**
 * Fetches the logical block that a packed record describes.
 *
 * @param ctx     any disk of the group.
 * @param record  10 bytes.
 * @param dst     4096 bytes.
 * @return 0; 8 when the member is not there; 9 for a unit outside the data region; 18 when the unit does not
 *         decompress to 4096 bytes; else the read's status. Each with a line.
 */
KAB_API uint32_t DDPReadFromPackedPBN(KABDiskCtx *ctx, const void *record, void *dst);

/**
 * Reads logical bytes. Blocks that are not mapped read as zeros.
 *
 * @return 0; 7 without a group; 22 (outside the status texts) for a member index that the group does not have; else as
 *         DDPReadFromPackedPBN or the read's status. What was copied before a failure stays in `buf`.
 */
KAB_API uint32_t DDPRead(KABDiskCtx *ctx, void *buf, uint32_t len, uint64_t offset);

/** Adds the stored units of a record to the dump file of the disk they lie on; 12 when it has none. */
KAB_API uint32_t DDPDumpFromPackedPBN(KABDiskCtx *ctx, const void *record);

/** Adds the stored units of a logical range. Statuses as DDPRead and DDPDumpFromPackedPBN. */
KAB_API uint32_t DDPDump(KABDiskCtx *ctx, uint32_t len, uint64_t offset);

/**
 * Writes logical bytes. The new contents go to free units; then they are marked in the bitmap; then the translation
 * map changes over. Interrupted anywhere, every logical block is either old or new.
 *
 * @return 0; 7 without a group; 2 with a line when no free units are left (those of a damaged bitmap block count as in
 *         use); 9 with a line for a damaged map block or regions that overlap; 12 with a line for a block beyond the
 *         translation map; else as DDPRead or the status of the write. Blocks before a failure may be new, all others
 *         are as they were.
 */
KAB_API uint32_t DDPWrite(KABDiskCtx *ctx, const void *buf, uint32_t len, uint64_t offset);

/* ---- Zero block ---------------------------------------------------------------------------------------------- */

/**
 * Finds the zero block's hash map entry and records it in the contexts of a deduplicating group.
 *
 * @param groupCtx  the group, all its members open.
 * @param devOut    member that holds the entry.
 * @param blkOut    hash map block of that member.
 * @param slotOut   entry in the block.
 * @param valueOut  the entry's 32-bit value.
 * @return 0; 2 when not all members are open; 13 when there is no entry; else the lookup's status. Each with a line;
 *         the contexts change on success only.
 */
KAB_API uint32_t KABDDPPopulateZeroBlkDetails(KABDiskCtx *groupCtx, uint32_t *devOut, uint64_t *blkOut,
                                              uint32_t *slotOut, uint32_t *valueOut);

/** The same for a compression-only disk, whose entry has a fixed place. */
KAB_API uint32_t KABCompressionPopulateZeroBlkDetails(KABDiskCtx *ctx);

#ifdef __cplusplus
}
#endif

#endif
