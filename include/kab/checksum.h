#ifndef KAB_CHECKSUM_H
#define KAB_CHECKSUM_H

/**
 * @file
 * Checksums and hashes. All operations are pure and may run on any thread once KABInit (or ARVO_InitCRC) has filled
 * the two matrix tables; none reports errors unless it says so.
 *
 * A GF(2) operator matrix is 32 words: word i is the image of bit i of a CRC register.
 */

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { ARVO_CRC_ZERO_MATRICES = 511, ARVO_CRC_SECTOR_MATRICES = 8 };

/** Matrix k-1 advances a CRC-32C register over k zero bytes. Filled by ARVO_InitCRC, read-only afterwards. */
extern KAB_API uint32_t crc32MatrixZero[ARVO_CRC_ZERO_MATRICES][32];

/** Matrix s-1 advances a CRC-32C register over s sectors of 512 zero bytes. */
extern KAB_API uint32_t crc32MatrixSector[ARVO_CRC_SECTOR_MATRICES][32];

/** Prepares the CRC machinery; `buf` holds `len` zero bytes, for the host's own use. Once, single-threaded. */
KAB_API void ARVO_InitCRC(const void *buf, uint32_t len);
/** The same. */
KAB_API void ARVOCrc32_Init(const void *buf, uint32_t len);

/** Fills 511 zero-run matrices and 8 sector matrices. */
KAB_API void ARVOCrc32PreCalcMatrix(uint32_t (*zeroMatrices)[32], uint32_t (*sectorMatrices)[32]);

/** CRC-32C (Castagnoli) continued: `crc` is the CRC of what came before, 0 for nothing. `len` in bytes. */
KAB_API uint32_t ARVOCrc32_Compute(uint32_t crc, const void *buf, uint32_t len);

/** CRC-32C of `len` bytes, adjusted so that an all-zero block of 4096 or 131072 bytes (`blockSize`) gives 0. */
KAB_API uint32_t ARVO_ComputeCRC32(const void *buf, uint32_t len, int32_t blockSize);

/** `crc` continued over the 4 bytes of the block size's constant: 131072's own, every other size that of 4096. */
KAB_API uint32_t ARVO_FakeCRC32(uint32_t crc, int32_t blockSize);

/** CRC of A followed by B, from both CRCs and B's length in bytes. Needs no tables. */
KAB_API uint32_t ARVO_CombineCRC32(uint32_t crc1, uint32_t crc2, uint32_t len2);

/** The same for a B of `sectors` 512-byte sectors, 1 to 8. Not checked. */
KAB_API uint32_t ARVO_CombineCRC32_Sector(uint32_t crc1, uint32_t crc2, uint8_t sectors);

/** CRC of A followed by `zeroBytes` zero bytes, 1 to 511. Not checked. */
KAB_API uint32_t ARVO_CombineCRC32_Zero(uint32_t crc1, uint32_t zeroBytes);

/** The product of a matrix and a vector. */
KAB_API uint32_t ARVO_gf2_matrix_times(const uint32_t *mat, uint32_t vec);

/** `out` = `mat` times `vecs`; `out` must be neither of them. */
KAB_API void ARVO_gf2_matrix_times_matrix(uint32_t *out, const uint32_t *mat, const uint32_t *vecs);

/** `out` = `mat` squared; `out` must not be `mat`. */
KAB_API void ARVO_gf2_matrix_square(uint32_t *out, const uint32_t *mat);

/**
 * Advances an IEEE CRC-32 register over whole 32-bit words, without initial or final inversion.
 *
 * @param crc  the register.
 * @param buf  words, in any alignment; null leaves the register unchanged.
 * @param len  bytes; the 1 to 3 beyond the last whole word are ignored.
 * @return the register.
 */
KAB_API uint32_t VBTMB_CRC32(uint32_t crc, const void *buf, uint64_t len);

/**
 * A 64-bit hash of a byte string, not cryptographic. It decides places on disks and never changes.
 *
 * @param data  in any alignment.
 * @param len   bytes, at least 1: an empty string has no hash.
 * @param out   receives the hash.
 * @return 0; 0xbad0007 when `len` is 0 or a pointer is null, nothing is stored then.
 */
KAB_API uint32_t plinth_HashBytes(const void *data, uint32_t len, uint64_t *out);

/* ---- SHA-1 --------------------------------------------------------------------------------------------------- */

enum { DDP_SHA1_DIGEST_SIZE = 20, DDP_SHA1_BLOCK_SIZE = 64 };

/** A SHA-1 in progress. One thread at a time per context. */
typedef struct DDPSHA1Ctx {
  uint32_t state[5];                   /**< the five words of the hash so far */
  uint32_t bitCount[2];                /**< message length so far in bits, low word first */
  uint8_t buffer[DDP_SHA1_BLOCK_SIZE]; /**< input that does not fill a block yet */
} DDPSHA1Ctx;

KAB_STATIC_ASSERT(sizeof(DDPSHA1Ctx) == 92 && offsetof(DDPSHA1Ctx, buffer) == 28, "DDPSHA1Ctx");

/** Begins a message. */
KAB_API void DDPSHA1Init(DDPSHA1Ctx *ctx);

/** Appends `len` bytes; `data` may be null when `len` is 0. */
KAB_API void DDPSHA1Update(DDPSHA1Ctx *ctx, const void *data, uint64_t len);

/** Writes the 20-byte digest and clears the whole context, so that no message data stays in memory. */
KAB_API void DDPSHA1Final(uint8_t *digest, DDPSHA1Ctx *ctx);

/**
 * Hashes several buffers of one length. Where the processor gains by it, they are hashed side by side.
 *
 * @param count      number of buffers; 0 does nothing.
 * @param len        bytes in each buffer.
 * @param prefix     `prefixLen` bytes that come before each buffer; may be null.
 * @param prefixLen  bytes at `prefix`.
 * @param buffers    `count` buffers.
 * @param digests    `count` outputs of 20 bytes, apart from all inputs.
 */
KAB_API void DDPSHA1MultiBuffer(uint32_t count, uint32_t len, const void *prefix, uint32_t prefixLen,
                                const void *const *buffers, uint8_t *const *digests);

#ifdef __cplusplus
}
#endif

#endif
