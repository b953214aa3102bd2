#ifndef KAB_CORE_H
#define KAB_CORE_H

/**
 * @file
 * The frame of the library and access to disks: initialisation, status texts, the log stream, memory, disk
 * contexts and disk groups, block I/O.
 *
 * Threads: KABInit runs once, before anything else. A disk group (an SSD's context and its capacity disks) is used
 * by one thread at a time; different groups may be used by different threads.
 */

#include <stdio.h>

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The texts of the status codes 0 to 18. Writable by tools (translations); never resized. */
extern KAB_API const char *kabReturnStatus[KAB_STATUS_COUNT];

/** The number of Arvo operation types. */
enum { KAB_ARVO_OP_TYPES = 26 };

/** The size in bytes of the record of each Arvo operation type, 0 to 25. */
extern KAB_API const uint32_t ArvoOpSizeTable[KAB_ARVO_OP_TYPES];

/** The level given to KABInit. Stored only: no message is gated by it. */
extern KAB_API uint32_t kabLogLevel;

/** The stream on which every message of the library is written, one line each. Null until KABInit. */
extern KAB_API FILE *kabLogStrm;

/**
 * Initialises the library: fills the CRC matrices and stores level and stream. Call once, before anything else.
 *
 * @param logLevel   stored in kabLogLevel.
 * @param logStream  borrowed; must stay open for as long as the library is used. Null silences the library.
 * @return always 0.
 */
KAB_API uint32_t KABInit(uint32_t logLevel, FILE *logStream);

/**
 * The text of a status code.
 *
 * @param status  0 to 18. Not checked: any other value reads outside the table.
 * @return a text owned by the library (or by whoever wrote the table).
 */
KAB_API const char *KABErrorStr(uint32_t status);

/**
 * The size of an Arvo operation's record.
 *
 * @param opType  0 to 25. Not checked: any other value reads outside the table.
 * @return bytes.
 */
KAB_API uint32_t KABARVOOpTypeToSize(uint32_t opType);

/** The index of the highest set bit of `value` (0 to 31); 0 for 0. */
KAB_API uint32_t KABLog2(uint32_t value);

/**
 * Allocates zero-filled memory. Any thread.
 *
 * @param size  bytes; 0 is allowed and gives a block that may not be accessed.
 * @return a block to be released with KABFree, or null when memory is exhausted.
 */
KAB_API void *KABAlloc(uint64_t size);

/**
 * Releases a block of KABAlloc and clears the variable that held it. Any thread.
 *
 * @param slot  address of the pointer variable (of any object pointer type); the block in it may be null.
 */
KAB_API void KABFree(void *slot);

/** KABAlloc in the form of components that pass an owner first; `owner` is ignored. */
KAB_API void *KABExprAlloc(uint64_t owner, uint64_t size);

/** Releases a block of KABExprAlloc, null allowed; `owner` is ignored. */
KAB_API void KABExprFree(uint64_t owner, void *block);

/**
 * zlib's allocation hook over KABAlloc.
 *
 * @param opaque      ignored.
 * @param items,size  multiplied in 32 bits: the product wraps.
 * @return a zero-filled block, or null when memory is exhausted.
 */
KAB_API void *KABCompressAlloc(void *opaque, uint32_t items, uint32_t size);

/** zlib's release hook for blocks of KABCompressAlloc. */
KAB_API void KABCompressFree(void *opaque, void *block);

/**
 * One positional transfer on a descriptor, attempted exactly once. Writes no message; errno is left as the system
 * set it. Any thread.
 *
 * @param direction  1 reads, every other value writes.
 * @param fd         an open descriptor.
 * @param buf        at least `length` bytes.
 * @param length     bytes.
 * @param offset     bytes from the start of the device or file.
 * @return 0 when exactly `length` bytes were transferred, else 1.
 */
KAB_API uint32_t KABDiskIO(uint32_t direction, uint32_t fd, void *buf, uint32_t length, int64_t offset);

/** KABDiskIO with direction 1. */
KAB_API uint32_t KABDiskRead(uint32_t fd, void *buf, uint32_t length, int64_t offset);

/** KABDiskIO with direction 0. */
KAB_API uint32_t KABDiskWrite(uint32_t fd, const void *buf, uint32_t length, int64_t offset);

/**
 * One transfer on a disk: through KABEncryptedIO when the disk is encrypted, else KABDiskIO on its descriptor.
 *
 * @param direction  1 reads, every other value writes.
 * @param ctx        the disk, open.
 * @param buf        `length` bytes.
 * @param length     bytes.
 * @param offset     bytes from the start of the device or file.
 * @return 0; 1 when a transfer failed or was short; 14 or 15 from the encrypted path.
 */
KAB_API uint32_t KABIO(uint32_t direction, KABDiskCtx *ctx, void *buf, uint32_t length, int64_t offset);

/** KABIO with direction 1. */
KAB_API uint32_t KABRead(KABDiskCtx *ctx, void *buf, uint32_t length, int64_t offset);

/** KABIO with direction 0. */
KAB_API uint32_t KABWrite(KABDiskCtx *ctx, const void *buf, uint32_t length, int64_t offset);

/**
 * Opens a cache SSD; its context is the disk group that capacity disks are attached to.
 *
 * @param path              device or image file; borrowed, not copied: it must outlive the context.
 * @param flags             open(2) flags; O_SYNC and O_EXCL are added.
 * @param skipUnmountCheck  nonzero opens a disk that is still mounted, after a warning line.
 * @return the context, or null with the reason on the log stream. The caller owns it: KABCloseDisk, then KABFree.
 */
KAB_API KABDiskCtx *KABOpenSSD(const char *path, uint32_t flags, uint8_t skipUnmountCheck);

/**
 * Opens a capacity disk and attaches it to its disk group.
 *
 * @param path              device or image file; borrowed, not copied: it must outlive the context.
 * @param flags             open(2) flags; O_SYNC and O_EXCL are added.
 * @param group             the group's SSD from KABOpenSSD; null gives reduced functionality.
 * @param skipUnmountCheck  nonzero opens a disk that is still mounted, after a warning line.
 * @return the context, or null with the reason on the log stream. The caller owns it: KABCloseDisk, then
 *         KABFree; capacity disks before their SSD. One thread at a time per disk group.
 */
KAB_API KABDiskCtx *KABOpenDisk(const char *path, uint32_t flags, KABDiskCtx *group, uint8_t skipUnmountCheck);

/**
 * Closes a disk and releases all that its context holds; the record itself stays the caller's to KABFree.
 *
 * @return 0, or 6 for an SSD that still has capacity disks attached: nothing is released then.
 */
KAB_API uint32_t KABCloseDisk(KABDiskCtx *ctx);

/**
 * The device index of a capacity disk.
 *
 * @param meta      the SSD's 4096-byte Arvo metadata block.
 * @param uuidLow   first 8 bytes of the disk's UUID, as stored.
 * @param uuidHigh  last 8 bytes.
 * @return 0 to 6, or -1 when the table does not list the UUID.
 */
KAB_API int32_t KABGetDevIdx(const uint8_t *meta, uint64_t uuidLow, uint64_t uuidHigh);

/**
 * Reads the Arvo metadata block.
 *
 * @param ctx        the disk, open.
 * @param buf        4096 bytes.
 * @param offsetOut  its byte offset, stored whether or not the read succeeds; may be null.
 * @return 0, or 1 with a line on the log stream.
 */
KAB_API uint32_t KABReadArvoMeta(KABDiskCtx *ctx, void *buf, uint64_t *offsetOut);

/** Accepts every metadata block; kept as a hook for tools. */
KAB_API uint32_t KABValidateArvoMeta(void);

/** Reads the encryption metadata block, 512 bytes, into `buf`. Returns 0 or 1; writes no line. */
KAB_API uint32_t KABReadEncrMeta(KABDiskCtx *ctx, void *buf);

/** Reads the AWS encryption metadata block, 512 bytes, into `buf`. Returns 0 or 1; writes no line. */
KAB_API uint32_t KABReadAWSEncrMeta(KABDiskCtx *ctx, void *buf);

/** The size of the secondary GPT at the end of every disk, in bytes. */
KAB_API uint64_t KABGetSecondaryGPTSizeBytes(void);

/**
 * Finds out whether a disk is encrypted and, if so, fetches its key into the context.
 *
 * @param ctx   the disk, its Arvo metadata read; a key that it already has is replaced.
 * @param path  the disk's path; not consulted.
 * @return 0; else the status of the metadata read or of the key, with a line on the log stream. `encrypted` stays
 *         set when only the key could not be had.
 */
KAB_API uint32_t KABUpdateDiskEncryptionInfo(KABDiskCtx *ctx, const char *path);

/**
 * Resolves a device path.
 *
 * @param path      absolute or relative.
 * @param fullPath  may be null. Not usable: what it names is released before the call returns; only null is of use.
 * @param baseName  the last component as a new text, to be released with KABFree; may be null. Null on failure.
 * @return 0; 2 when the path cannot be resolved or does not exist; 3 when memory is exhausted. Each with a line.
 */
KAB_API uint32_t KABExtractDeviceName(const char *path, char **fullPath, char **baseName);

/** Makes `dump` the file that KABPlogDump and DDPDump add to for this disk; null takes it away. Not owned. */
KAB_API void KABSetDumpFile(KABDiskCtx *ctx, KABDumpCtx *dump);

#ifdef __cplusplus
}
#endif

#endif
