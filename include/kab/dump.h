#ifndef KAB_DUMP_H
#define KAB_DUMP_H

/**
 * @file
 * Dump files: byte ranges of one disk, compressed and hashed, to be shipped, verified and written back.
 *
 *      0          4096
 *      | header   | one zlib stream of records: source offset u64, length u32, data ...
 *
 * The header is written at close; until then its 4096 bytes are zero, so that an unfinished dump is recognisable.
 */

#include <zlib.h>

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  KAB_DUMP_VERSION = 1,
  KAB_DUMP_HEADER_SIZE = 4096,
  KAB_DUMP_HEADER_READ = 200,      /**< the bytes of the header that carry information */
  KAB_DUMP_MAX_PIECE = 262144,     /**< the longest record of KABAddChunkToDump, bytes of data */
  KAB_STREAM_BUFFER_SIZE = 8388608 /**< staging buffer of a stream, bytes */
};
/** The first four bytes of a finished dump, little-endian. */
#define KAB_DUMP_MAGIC 0xCC0000CCu

/** The state of one zlib stream over a file. The last two fields serve decompression only. */
struct KABCompressStream {
  z_stream zlib;       /**< zlib's own state */
  uint8_t *buffer;     /**< staging buffer, owned */
  uint64_t bufferSize; /**< bytes */
  union {
    uint32_t (*checkOutput)(KABCompressCtx *ctx, uint32_t length, uint8_t advance);
    uint32_t (*input)(KABCompressCtx *ctx, uint64_t *filled);
  } callback;                  /**< what a full output or an empty input buffer calls */
  KABCompressCtx *callbackCtx; /**< its first argument */
  uint64_t totalOut;           /**< bytes delivered */
  int32_t postponedError;      /**< zlib's, reported on the next request; 0 when none */
};

/** A compressing or decompressing stream over a descriptor that stays the caller's. */
struct KABCompressCtx {
  uint32_t fd;               /**< borrowed */
  uint64_t fileOffset;       /**< next byte of the file to write or read */
  KABCompressStream *stream; /**< owned */
};

/** A dump file being written. */
struct KABDumpCtx {
  uint32_t fd;                          /**< the file, owned until the close */
  struct plinth_Lock *lock;             /**< serialises appends */
  uint8_t header[KAB_DUMP_HEADER_SIZE]; /**< written at close */
  void *hashState;                      /**< running SHA-256 of all records */
  KABCompressCtx *compress;             /**< the stream, owned */
  uint8_t failed;                       /**< an append or the close failed: the header stays zero */
  uint8_t closed;                       /**< the dump is finished; nothing can be added */
};

KAB_STATIC_ASSERT(sizeof(z_stream) == 112, "z_stream");
KAB_STATIC_ASSERT(offsetof(KABCompressStream, buffer) == 112 && offsetof(KABCompressStream, totalOut) == 144,
                  "KABCompressStream");
KAB_STATIC_ASSERT(sizeof(KABCompressCtx) == 24 && offsetof(KABDumpCtx, header) == 16, "dump records");

/* ---- Streams ----------------------------------------------------------------------------------------------- */

/**
 * Begins a zlib stream with the default level, written to `fd` from byte `startOffset` on.
 *
 * @return the stream, or null. The caller releases it after KABCompressFinish: its `stream`, then itself, with
 *         KABFree. One thread at a time.
 */
KAB_API KABCompressCtx *KABCompressInit(uint32_t fd, uint64_t startOffset);

/** Writes the first `length` bytes of the buffer at the file offset, which moves by them when `advance` is nonzero,
 *  even after a failed write. Returns the write's status, with a line on failure. */
KAB_API uint32_t KABCompressCheckOutput(KABCompressCtx *ctx, uint32_t length, uint8_t advance);

/** Compresses `length` bytes; whole buffers are written as they fill. Returns 0, or 2 with a line. */
KAB_API uint32_t KABCompressAppend(KABCompressCtx *ctx, const void *data, uint32_t length);

/** Flushes and ends the stream and releases its buffer. Returns 0, or 2 with a line. */
KAB_API uint32_t KABCompressFinish(KABCompressCtx *ctx);

/** Ends the deflate state. Returns 0, or 2 with a line. */
KAB_API uint32_t KABCompressClear(KABCompressStream *stream);

/** Begins to read a zlib stream from byte `startOffset` of `fd`; null on any failure, without a line. */
KAB_API KABCompressCtx *KABDecompressInit(uint32_t fd, uint64_t startOffset);

/**
 * Refills the input buffer from the file.
 *
 * @param ctx     a stream of KABDecompressInit.
 * @param filled  receives the bytes read; behind the end of the file the buffer is zeroed.
 * @return 0, or 2 with a line.
 */
KAB_API uint32_t KABDecompressInput(KABCompressCtx *ctx, uint64_t *filled);

/** Delivers exactly `length` bytes, or fails with 2. An error met after the last byte is kept for the next call. */
KAB_API uint32_t KABGetDecompressedData(KABCompressCtx *ctx, void *dst, uint32_t length);

/** Ends the inflate state and releases the buffer. Returns 0 or 2; writes no line. */
KAB_API uint32_t KABDecompressFinish(KABCompressCtx *ctx);

/* ---- Writing a dump ---------------------------------------------------------------------------------------- */

/**
 * Makes a dump's name: directory, "/", prefix, "_", middle and the local time.
 *
 * @param directory  without a final slash.
 * @param prefix     any text.
 * @param middle     any text.
 * @param nameOut    receives a new text, to be released with KABFree.
 * @return 0 or 3.
 */
KAB_API uint32_t KABGenerateDumpFileName(const char *directory, const char *prefix, const char *middle, char **nameOut);

/**
 * Creates a dump file, which must not exist.
 *
 * @param dumpPath    the file to create, mode 0644.
 * @param devicePath  the source device; its last component goes into the header.
 * @param diskSize    the source's size in bytes; an extractor may size its target to it.
 * @return the dump, or null with the reason on the log stream and no file left behind. The caller owns it:
 *         KABCloseDumpFile, then KABFree. Appends may come from several threads.
 */
KAB_API KABDumpCtx *KABInitDumpFile(const char *dumpPath, const char *devicePath, uint64_t diskSize);

/**
 * Appends one record holding the caller's bytes.
 *
 * @param dump    not closed yet; several threads may add.
 * @param data    `length` bytes.
 * @param length  bytes.
 * @param offset  where they lie on the source, in bytes.
 * @return 0, or 2. After a failure the dump is marked failed: every later append and the close return 2.
 */
KAB_API uint32_t KABAddBufferToDump(KABDumpCtx *dump, const void *data, uint32_t length, uint64_t offset);

/**
 * Appends a range of an opened disk, decrypted, in records of at most 262144 bytes.
 *
 * @return 0; 2 for a failed read or append, or a range that ends beyond 64 bits; 3 when memory is exhausted. Records
 *         already added stay in the dump. A failed append marks the dump failed, a failed read does not.
 */
KAB_API uint32_t KABAddChunkToDump(KABDumpCtx *dump, KABDiskCtx *ctx, uint32_t length, uint64_t offset);

/**
 * Finishes the stream, writes the header and closes the file. The record stays the caller's to KABFree.
 *
 * When the stream cannot be finished, the descriptor stays open: a second call closes it and releases the rest. Not
 * to be called while another thread appends.
 *
 * @return 0; 1 when the header could not be written; 2 when the stream could not be finished, the file not be closed,
 *         an append had failed, or the dump was closed before.
 */
KAB_API uint32_t KABCloseDumpFile(KABDumpCtx *dump);

/* ---- Verifying and extracting ------------------------------------------------------------------------------ */

/** Takes over `data` (of KABAlloc) and writes it to the target in place of the extractor. Returns a status. */
typedef uint32_t (*KABExtractWriteFn)(uint32_t targetFd, void *data, uint32_t length, uint64_t offset);

/** Reads the header's first 200 bytes into `buf`. Returns 0 or 1. */
KAB_API uint32_t KABReadDumpHeader(uint32_t dumpFd, void *buf);

/**
 * Opens or creates an extraction target.
 *
 * @param path    image file or device.
 * @param fdOut   receives the descriptor, owned by the caller; 0 on failure.
 * @param create  in: nonzero insists on a new file; out: 1 when the file was created.
 * @return 0, or 5 with a line.
 */
KAB_API uint32_t KABOpenExtractDisk(const char *path, int32_t *fdOut, uint8_t *create);

/**
 * Replays a dump's records onto a target and compares the SHA-256 at the end. Data is written as it is read: a
 * nonzero status tells that the target is not to be trusted. Magic and version are not examined here.
 *
 * @param dumpFd    open for reading; its file position plays no part.
 * @param targetFd  open for writing; handed to `write` when there is one.
 * @param truncate  nonzero sets the target's length to the source's.
 * @param write     replaces the plain write and takes over each buffer; may be null.
 * @return 0; 1 for a failed write, or for a short header of a dump without records; 2 for a bad stream, record or
 *         hash; 3 when memory is exhausted; else what `write` returned. When no stream can be set up, the status of the
 *         header's read, 0 as a rule: only the line "Error: Failed to init decompression context" tells.
 */
KAB_API uint32_t KABVerifyAndExtractDump(uint32_t dumpFd, uint32_t targetFd, uint8_t truncate, KABExtractWriteFn write);

/** KABVerifyAndExtractDump with a line of its own on failure. */
KAB_API uint32_t KABExtractDumpToDisk(uint32_t dumpFd, uint32_t targetFd, uint8_t truncate, KABExtractWriteFn write);

#ifdef __cplusplus
}
#endif

#endif
