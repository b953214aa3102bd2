#ifndef KAB_CRYPTO_H
#define KAB_CRYPTO_H

/**
 * @file
 * Encryption: data-encryption keys from the host's key cache, and XTS-AES-256 on the I/O path. The data area of an
 * encrypted disk is enciphered in 2048-byte blocks, each under the tweak of its byte offset from the area's start.
 */

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { KAB_CIPHER_BLOCK_SIZE = 2048, KAB_DEK_SIZE = 64 };

/**
 * The four calls of the host's key cache. Each passes six words to the host and returns the first result word; when
 * the second is nonzero, its negation is stored in errno. Any thread that the installed door allows.
 */
KAB_API int64_t ARVOUWAPI_KeyCacheAddKey(uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6);
/** The second word is passed as 0. */
KAB_API int64_t ARVOUWAPI_KeyCacheRemoveKey(uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5,
                                            uint64_t a6);
/**
 * @param keyName    the key's name, a UUID text.
 * @param keyInfo    100 zeroed bytes, filled by the host.
 * @param keyId      17 zeroed bytes, filled by the host.
 * @param dek        receives the key.
 * @param dekLength  bytes at `dek`.
 * @param out        the host's own.
 */
KAB_API int64_t ARVOUWAPI_KeyCacheGetKey(const char *keyName, void *keyInfo, void *keyId, void *dek, uint32_t dekLength,
                                         uint32_t *out);
/** As ARVOUWAPI_KeyCacheAddKey, for the id of a key. */
KAB_API int64_t ARVOUWAPI_KeyCacheLookupKeyID(uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5,
                                              uint64_t a6);

/**
 * Fetches a disk's data-encryption key. The caller wipes the buffer as soon as it was used.
 *
 * @param ctx     the disk; its UUID text, or the other one of a type 11 disk, names the key.
 * @param dek     receives 64 bytes.
 * @param length  bytes at `dek`.
 * @return 0, or 13 with a line on the log stream, whatever the host reported.
 */
KAB_API uint32_t KABGetDekForDisk(KABDiskCtx *ctx, void *dek, uint32_t length);

/**
 * Fetches a disk's key and makes a key handle of it.
 *
 * @param ctx  as KABGetDekForDisk.
 * @param key  receives the handle, owned by the caller; a disk's own is released by KABCloseDisk.
 * @return 0; 13 without a key; 2 when no handle can be made of it. Each with a line on the log stream.
 */
KAB_API uint32_t KABGetCryptoKeyForDisk(KABDiskCtx *ctx, struct plinth_Key **key);

/**
 * Decrypts one 2048-byte block under a private copy of the key. Any thread.
 *
 * @param key     borrowed, not changed.
 * @param tweak   byte offset of the block from the start of the data area.
 * @param in,out  2048 bytes each; they may be the same.
 * @return 0, or 14.
 */
KAB_API uint32_t KABDecryptBlock(struct plinth_Key *key, uint64_t tweak, const void *in, void *out);

/** The inverse. Returns 0; 15 when the encryption failed; 14, not 15, when the key could not be copied. */
KAB_API uint32_t KABEncryptBlock(struct plinth_Key *key, uint64_t tweak, const void *in, void *out);

/** KABDecryptBlock with a success flag for a result: 1 when the block was decrypted, else 0. */
KAB_API uint32_t KABDecryptDataFunc(struct plinth_Key *key, uint64_t tweak, const void *in, void *out);

/**
 * One transfer on an encrypted disk. A request that begins below the data area goes through in clear, all of it;
 * any other is decrypted or encrypted block by block, partial blocks being read first and patched.
 *
 * @param direction  1 reads, every other value writes.
 * @param ctx        the disk, with its key.
 * @param buf        `length` bytes.
 * @param length     bytes, no alignment asked for.
 * @param offset     bytes from the start of the device or file.
 * @return 0; 1, 14 or 15 with a line on the log stream. Blocks before the failing one have been transferred.
 */
KAB_API uint32_t KABEncryptedIO(uint32_t direction, KABDiskCtx *ctx, void *buf, uint32_t length, int64_t offset);

#ifdef __cplusplus
}
#endif

#endif
