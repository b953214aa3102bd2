// XTS-AES-256 on the I/O path: the data area of an encrypted disk is a row of 2048-byte blocks, each enciphered under
// the tweak of its byte offset from the area's start. What lies before the area is in clear.

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <cstring>

#include "core/frame/log.h"
#include "kab/core.h"
#include "kab/crypto.h"
#include "plinth/cipher.h"

namespace kab::crypto {
namespace {

constexpr uint32_t kBlock = KAB_CIPHER_BLOCK_SIZE;
constexpr uint32_t kRun = 64 * kBlock;  // the most that one transfer of whole blocks enciphers on the stack

struct Tweak {
  explicit Tweak(uint64_t value) { std::memcpy(bytes, &value, sizeof value); }
  uint8_t bytes[16] = {};
};

// A private copy of a disk's key for the length of one call.
class KeyCopy {
 public:
  explicit KeyCopy(plinth_Key* key) {
    if (plinth::KeyClone(key, &copy_) != plinth::kCipherOk) copy_ = nullptr;
  }
  ~KeyCopy() { plinth::KeyRelease(copy_); }
  KeyCopy(const KeyCopy&) = delete;
  KeyCopy& operator=(const KeyCopy&) = delete;
  plinth_Key* get() const { return copy_; }

 private:
  plinth_Key* copy_ = nullptr;
};

// Whole blocks straight into the caller's buffer: one transfer, then each block decrypted where it lies. False leaves
// it to the block-by-block path, which finds the failing block, tells of it and keeps the blocks before it.
bool ReadRun(KABDiskCtx* ctx, uint8_t* buf, uint32_t length, int64_t offset) {
  if (KABDiskRead(static_cast<uint32_t>(ctx->fd), buf, length, offset) != KAB_OK) return false;
  const KeyCopy key(ctx->cryptoKey);
  if (key.get() == nullptr) return false;
  uint64_t tweak = static_cast<uint64_t>(offset) - ctx->dataOffset;
  for (uint32_t done = 0; done < length; done += kBlock, tweak += kBlock) {
    if (plinth::KeyXtsDecrypt(key.get(), Tweak(tweak).bytes, buf + done, buf + done, kBlock) != plinth::kCipherOk) {
      return false;
    }
  }
  return true;
}

// The same for a write, through a buffer of its own; the caller's bytes stay clear.
bool WriteRun(KABDiskCtx* ctx, const uint8_t* buf, uint32_t length, int64_t offset) {
  uint8_t enciphered[kRun];
  const KeyCopy key(ctx->cryptoKey);
  if (key.get() == nullptr) return false;
  uint64_t tweak = static_cast<uint64_t>(offset) - ctx->dataOffset;
  for (uint32_t done = 0; done < length; done += kBlock, tweak += kBlock) {
    if (plinth::KeyXtsEncrypt(key.get(), Tweak(tweak).bytes, buf + done, enciphered + done, kBlock) !=
        plinth::kCipherOk) {
      return false;
    }
  }
  return KABDiskWrite(static_cast<uint32_t>(ctx->fd), enciphered, length, offset) == KAB_OK;
}

uint32_t ReadPiece(KABDiskCtx* ctx, uint8_t* buf, uint32_t position, uint32_t piece, int64_t blockStart) {
  uint8_t enciphered[kBlock];
  uint8_t clear[kBlock];
  uint32_t st = KABDiskIO(1, static_cast<uint32_t>(ctx->fd), enciphered, kBlock, blockStart);
  if (st != KAB_OK) {
    Log("%s: Error: Failed to read block at offset %lu\n", ctx->uuidText, static_cast<uint64_t>(blockStart));
    return st;
  }
  st = KABDecryptBlock(ctx->cryptoKey, static_cast<uint64_t>(blockStart) - ctx->dataOffset, enciphered, clear);
  if (st != KAB_OK) {
    Log("%s: Error: Failed to decrypt block at offset %lu\n", ctx->uuidText, static_cast<uint64_t>(blockStart));
    return st;
  }
  std::memcpy(buf, clear + position, piece);
  return KAB_OK;
}

uint32_t WritePiece(KABDiskCtx* ctx, const uint8_t* buf, uint32_t position, uint32_t piece, int64_t blockStart) {
  uint8_t enciphered[kBlock];
  uint8_t patched[kBlock];
  const uint8_t* clear = buf;
  if (piece != kBlock) {
    const uint32_t read = KABEncryptedIO(1, ctx, patched, kBlock, blockStart);
    if (read != KAB_OK) return read;
    std::memcpy(patched + position, buf, piece);
    clear = patched;
  }
  uint32_t st = KABEncryptBlock(ctx->cryptoKey, static_cast<uint64_t>(blockStart) - ctx->dataOffset, clear, enciphered);
  if (st != KAB_OK) {
    Log("%s: Error: Failed to encrypt block at offset %lu\n", ctx->uuidText, static_cast<uint64_t>(blockStart));
    return st;
  }
  st = KABDiskWrite(static_cast<uint32_t>(ctx->fd), enciphered, kBlock, blockStart);
  if (st != KAB_OK) {
    Log("%s: Error: Failed to write block at offset %lu:%s\n", ctx->uuidText, static_cast<uint64_t>(blockStart),
        strerror(errno));
  }
  return st;
}

}  // namespace
}  // namespace kab::crypto

uint32_t KABDecryptBlock(plinth_Key* key, uint64_t tweak, const void* in, void* out) {
  const kab::crypto::KeyCopy copy(key);
  if (copy.get() == nullptr) return KAB_DECRYPT_FAILED;
  const auto error =
      kab::plinth::KeyXtsDecrypt(copy.get(), kab::crypto::Tweak(tweak).bytes, in, out, KAB_CIPHER_BLOCK_SIZE);
  if (error == kab::plinth::kCipherOk) return KAB_OK;
  kab::Log("Error: Failed to decrypt data from cipher: %s\n", kab::plinth::CipherErrorText(error));
  return KAB_DECRYPT_FAILED;
}

uint32_t KABEncryptBlock(plinth_Key* key, uint64_t tweak, const void* in, void* out) {
  const kab::crypto::KeyCopy copy(key);
  // Not the encryption's own status: a key that cannot be copied counts as a decryption failure in both directions.
  if (copy.get() == nullptr) return KAB_DECRYPT_FAILED;
  const auto error =
      kab::plinth::KeyXtsEncrypt(copy.get(), kab::crypto::Tweak(tweak).bytes, in, out, KAB_CIPHER_BLOCK_SIZE);
  if (error == kab::plinth::kCipherOk) return KAB_OK;
  kab::Log("Error: Failed to encrypt data using cipher: %s\n", kab::plinth::CipherErrorText(error));
  return KAB_ENCRYPT_FAILED;
}

uint32_t KABDecryptDataFunc(plinth_Key* key, uint64_t tweak, const void* in, void* out) {
  return KABDecryptBlock(key, tweak, in, out) == KAB_OK ? 1 : 0;
}

uint32_t KABEncryptedIO(uint32_t direction, KABDiskCtx* ctx, void* buf, uint32_t length, int64_t offset) {
  using namespace kab::crypto;
  // Only the start decides: a request that begins in the clear part is moved as it is, however far it extends.
  if (offset < static_cast<int64_t>(ctx->dataOffset)) {
    return KABDiskIO(direction, static_cast<uint32_t>(ctx->fd), buf, length, offset);
  }
  auto* bytes = static_cast<uint8_t*>(buf);
  bool runs = true;  // given up for the rest of the call when one failed
  while (length != 0) {
    const uint32_t position = static_cast<uint32_t>(offset) % kBlock;
    const uint32_t run = std::min(length - length % kBlock, kRun);
    uint32_t piece = std::min(kBlock - position, length);
    if (runs && position == 0 && run > kBlock) {
      runs = direction == 1 ? ReadRun(ctx, bytes, run, offset) : WriteRun(ctx, bytes, run, offset);
      if (!runs) continue;
      piece = run;
    } else {
      const int64_t blockStart = offset - position;
      const uint32_t st = direction == 1 ? ReadPiece(ctx, bytes, position, piece, blockStart)
                                         : WritePiece(ctx, bytes, position, piece, blockStart);
      if (st != KAB_OK) return st;
    }
    bytes += piece;
    offset += piece;
    length -= piece;
  }
  return KAB_OK;
}
