#ifndef KAB_SSDLOG_H
#define KAB_SSDLOG_H

/**
 * @file
 * The SSD log: checkpoint records and log blocks, walks along the PLOG and the LLOG, allocation maps, replay of the
 * PLOG, and capacity disks as their disk group sees them.
 *
 * Blocks are 4096 bytes, numbered from the data offset of the SSD. Buffers may have any alignment. A disk group is
 * used by one thread at a time.
 *
 * Order of use: KABOpenSSD, KABSSDLOGGetValidCheckPointRecord, KABSSDLOGRecovPlogLog, then KABPlogRead and its like on
 * the capacity disks, which may be opened before or after the replay.
 */

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  KAB_LOG_BLOCK_SIZE = 4096,
  KAB_LOG_BLOCK_HEADER_SIZE = 64, /**< the first entry of a block follows */
  KAB_CHECKPOINT_RECORD_SIZE = 140,
  KAB_LOG_TYPE_PLOG = 1,
  KAB_ALLOC_MAP_MAX = 512 /**< extents of an entry's allocation map */
};
/** A log pointer with this value points nowhere. */
#define KAB_INVALID_BLK 0xFFFFFFFFFF5FFULL

/* ---- Log blocks and checkpoint records --------------------------------------------------------------------- */

/**
 * Reads one log block.
 *
 * @param ctx        the SSD.
 * @param blkNo      counted from the data offset.
 * @param buf        4096 bytes.
 * @param outOffset  receives the block's byte offset, before the read; may be null.
 * @return the status of KABRead; 1 for a block whose byte offset no file can have. Writes no line.
 */
KAB_API uint32_t KABReadSSDLOGBlk(KABDiskCtx *ctx, uint64_t blkNo, void *buf, uint64_t *outOffset);

/**
 * Whether a block is a valid block of a log: checksum, back link, magic, type, and a next block in the write buffer
 * of the current checkpoint record.
 *
 * @param ctx           the SSD, with a current checkpoint record.
 * @param blk           4096 bytes.
 * @param expectedPrev  byte offset of the block before; 0: not compared.
 * @param logType       1 for the PLOG, else the LLOG.
 * @return 1 or 0; a bad checksum or back link is reported.
 */
KAB_API uint32_t KABSSDLOGCheckLogBlkHdr(KABDiskCtx *ctx, const void *blk, uint64_t expectedPrev, uint32_t logType);

/** Whether a log entry begins with a valid prefix (32 bytes are read). 1 or 0, no line; `ctx` is not used. */
KAB_API uint32_t KABSSDLOGCheckLogEntryPrefix(KABDiskCtx *ctx, const void *entry);

/** Whether an operation entry begins with a valid prefix (32 bytes are read). 1 or 0, no line; `ctx` is not used. */
KAB_API uint32_t KABSSDLOGCheckOperationEntryPrefix(KABDiskCtx *ctx, const void *entry);

/** Whether the 8 bytes at `entry` are a valid PLOG entry header. 1 or 0, no line; `ctx` is not used. */
KAB_API uint32_t KABSSDLOGCheckPlogLogEntry(KABDiskCtx *ctx, const void *entry);

/** Whether a checkpoint record of 140 bytes is valid by every rule. 1 or 0; a bad checksum is reported. */
KAB_API uint32_t KABSSDLOGCheckCPR(KABDiskCtx *ctx, const void *cpr);

/**
 * Reads both checkpoint records and makes the newer valid one the context's current record. Without success the
 * context has no current record.
 *
 * @return 0; 1 for a failed read; 9 when neither is valid; 11 for a context without a log state area.
 */
KAB_API uint32_t KABSSDLOGGetValidCheckPointRecord(KABDiskCtx *ctx);

/** The number of set bits among the first `nbits` bits of `buf`, each byte's lowest bit first. */
KAB_API uint64_t KABCountSetBitsInBuffer(const void *buf, uint64_t nbits);

/* ---- Walks -------------------------------------------------------------------------------------------------
 * The end of a chain is status 10: the invalid pointer, a block whose checksum is wrong, or one that does not carry
 * the checksum of its neighbour. Neither magic nor, forward, the write buffer's bounds are examined. `cur` may be the
 * start of `buf`; `outOffset` receives the byte offset read, 0 when nothing was read, and may be null.
 */

/**
 * The next block of the LLOG, or its first.
 *
 * @param ctx        the SSD.
 * @param cur        header (64 bytes) of the block before; null begins at the current checkpoint record.
 * @param buf        4096 bytes.
 * @param outOffset  as above.
 * @return 0; 10; 11 without a current checkpoint record; the status of a failed read, with a line.
 */
KAB_API uint32_t KABSSDLOGLlogReadNext(KABDiskCtx *ctx, const void *cur, void *buf, uint64_t *outOffset);

/** The same for the PLOG. */
KAB_API uint32_t KABSSDLOGPlogReadNext(KABDiskCtx *ctx, const void *cur, void *buf, uint64_t *outOffset);

/**
 * The block before `cur`, or the last block of a log.
 *
 * @param ctx        the SSD.
 * @param logType    names the log when `cur` is null: 1 is the PLOG, every other value the LLOG.
 * @param cur        header (64 bytes) of the block behind; null begins at the end of the log.
 * @param buf        4096 bytes.
 * @param outOffset  as above.
 * @return 0; 10; 11; 9 with a line for a block outside the write buffer; the status of a failed read, with a line.
 */
KAB_API uint32_t KABSSDLOGReadPrev(KABDiskCtx *ctx, uint32_t logType, const void *cur, void *buf, uint64_t *outOffset);

/* ---- Allocation maps ---------------------------------------------------------------------------------------
 * Packed: u16 count, then 7 bytes an extent. Unpacked: u16 count, then 10 bytes an extent: u64 address and u16 length
 * in sectors of 512 bytes from the SSD's data offset. Both little-endian and unaligned.
 */

/**
 * Unpacks every element; the count of `unpacked` is the caller's to write.
 *
 * @param ctx       the SSD; its current checkpoint record places the reserved ranges.
 * @param packed    2 + 7 * count bytes.
 * @param unpacked  2 + 10 * count bytes.
 */
KAB_API void KABUnpackAllocMap(KABDiskCtx *ctx, const void *packed, void *unpacked);

/**
 * Packs every element; the count of `packed` is the caller's to write.
 *
 * @param ctx       as KABUnpackAllocMap.
 * @param unpacked  an element of the first reserved range gets the packed reserved address in place.
 * @param packed    2 + 7 * count bytes.
 * @return the element count.
 */
KAB_API uint32_t KABPackAllocMap(KABDiskCtx *ctx, void *unpacked, void *packed);

/**
 * The unpacked allocation map of a log entry.
 *
 * @param ctx     as KABUnpackAllocMap.
 * @param entry   as many bytes as its entry length says, at most 4096.
 * @param outMap  receives a new map, to be released with KABFree, or null when the entry has none.
 * @return 0; 2 for more than 512 elements; 9 for a map that leaves its entry; 3.
 */
KAB_API uint32_t SSDLOG_UnpackAllocMapFromEntry(KABDiskCtx *ctx, const void *entry, void **outMap);

/**
 * Adds every extent of a packed map to a dump. An extent that cannot be added is reported and skipped.
 *
 * @return the status of the last extent; 0 for an empty map; 2 for more than 512 elements; 3.
 */
KAB_API uint32_t SSDLOGDumpPackedAllocMap(KABDiskCtx *ctx, KABDumpCtx *dumpFile, const void *packed);

/** Whether every extent of the entry's map lies in the write buffer or is reserved. 1 or 0; an entry without a map
 *  passes, a map without extents does not. */
KAB_API uint32_t KABSSDLOGCheckAllocMap(KABDiskCtx *ctx, const void *entry);

/* ---- Replay ------------------------------------------------------------------------------------------------ */

/**
 * Gives a context a PLOG state.
 *
 * @param ctx                a disk without a state.
 * @param lbaCache,lsnCache  key areas of the state's tables; must outlive the state; may be null.
 * @return 0; 3 with a line; the result of the LBA table's initialisation with a line.
 */
KAB_API uint32_t KABSSDLOGInitPLOGState(KABDiskCtx *ctx, BucketlistCache *lbaCache, BucketlistCache *lsnCache);

/** Destroys a PLOG state's tables, releases it and clears the pointer; a null state is allowed. */
KAB_API void KABFreePlogState(KABPlogState **state);

/** Destroys both Bucketlist caches of the context and clears their flag. Their lists must be gone. */
KAB_API void KABPLOGFreeBlCaches(KABDiskCtx *ctx);

/**
 * Replays the PLOG of a group into its disks' PLOG states; disks that are not open yet get placeholders, which their
 * opening takes over. Runs once: after a replay that reached the end of the log it returns 0 at once.
 *
 * @return 0; else nothing of the replay is left: 11 without a current checkpoint record, 9 for a broken entry or
 *         chain, 2 for an entry of an unknown disk or an oversized map, 3, or the status of a failed read.
 */
KAB_API uint32_t KABSSDLOGRecovPlogLog(KABDiskCtx *ctx);

/**
 * Walks and checks the LLOG. Replay of a log that holds entries is not supported.
 *
 * @return 0 for an empty LLOG: recovery is complete then; 7 with a line for one that is not empty; 9 for a broken
 *         one; 11 without a current checkpoint record; 3, or the status of a failed read.
 */
KAB_API uint32_t KABSSDLOGRecovLlogLog(KABDiskCtx *ctx);

/** The group's table of KABComponentState records, made on first use and released when the SSD closes; the records
 *  are their filler's. Null when memory is exhausted. */
KAB_API ARVOUUIDTable *KABSSDLOGComponentTable(KABDiskCtx *ssd);

/* ---- Capacity disks as the group sees them ----------------------------------------------------------------- */

/**
 * Reads from the write buffer where the log holds newer data, from the dedup layer or the disk elsewhere.
 *
 * @param ctx     a capacity disk of a group.
 * @param buf     `length` bytes.
 * @param length  bytes.
 * @param offset  bytes, from the start of the disk's data area or of its dedup layer.
 * @return 0; 2 with a line before the group's replay completed; the status of the first piece that failed.
 */
KAB_API uint32_t KABPlogRead(KABDiskCtx *ctx, void *buf, uint32_t length, uint64_t offset);

/**
 * Overwrites in place: the copy in the write buffer where there is one, the disk elsewhere.
 *
 * @return 0; 2 with a line before the group's replay completed; 7 with a line on a disk that shares its group's state
 *         and for a piece logged as zeros; the status of the first piece that failed. Pieces written stay written.
 */
KAB_API uint32_t KABPlogWrite(KABDiskCtx *ctx, const void *buf, uint32_t length, uint64_t offset);

/**
 * Adds the pieces that KABPlogRead would read to the dump files: those of the write buffer to the SSD's, the others
 * to the disk's own. Pieces logged as zeros are left out.
 *
 * @return 0; 12 without a dump file where one is needed; 2 with a line on a disk that gave its state up; the status
 *         of the first piece that failed.
 */
KAB_API uint32_t KABPlogDump(KABDiskCtx *ctx, uint32_t length, uint64_t offset);

#ifdef __cplusplus
}
#endif

#endif
