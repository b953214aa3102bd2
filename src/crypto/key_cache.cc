// The host's key cache and the data-encryption keys that it holds.

#include <openssl/crypto.h>

#include <cerrno>
#include <cstring>

#include "core/frame/log.h"
#include "core/io/arvo_meta_format.h"
#include "kab/core.h"
#include "kab/crypto.h"
#include "plinth/cipher.h"
#include "plinth/key_cache.h"

namespace kab::crypto {
namespace {

constexpr const char* kCipherName = "XTS-AES-256";

int64_t Call(uint32_t number, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6) {
  const uint64_t args[6] = {a1, a2, a3, a4, a5, a6};
  int64_t err = 0;
  const int64_t result = plinth::KeyCacheCallHost(number, args, &err);
  if (err != 0) errno = static_cast<int>(-err);
  return result;
}

uint64_t Word(const void* pointer) { return reinterpret_cast<uint64_t>(pointer); }

// On a type 11 disk a bit tells which of its two UUIDs names the key.
const char* KeyName(const KABDiskCtx& ctx) {
  if (!IsType11(ctx.meta)) return ctx.uuidText;
  return (ctx.meta[meta::kState11] & 0x80) != 0 ? ctx.uuidText : ctx.altUuidText;
}

}  // namespace
}  // namespace kab::crypto

int64_t ARVOUWAPI_KeyCacheAddKey(uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6) {
  return kab::crypto::Call(kab::plinth::kKeyCacheAdd, a1, a2, a3, a4, a5, a6);
}

int64_t ARVOUWAPI_KeyCacheRemoveKey(uint64_t a1, uint64_t /*a2*/, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6) {
  return kab::crypto::Call(kab::plinth::kKeyCacheRemove, a1, 0, a3, a4, a5, a6);
}

int64_t ARVOUWAPI_KeyCacheGetKey(const char* keyName, void* keyInfo, void* keyId, void* dek, uint32_t dekLength,
                                 uint32_t* out) {
  using kab::crypto::Word;
  return kab::crypto::Call(kab::plinth::kKeyCacheGet, Word(keyName), Word(keyInfo), Word(keyId), Word(dek), dekLength,
                           Word(out));
}

int64_t ARVOUWAPI_KeyCacheLookupKeyID(uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6) {
  return kab::crypto::Call(kab::plinth::kKeyCacheLookup, a1, a2, a3, a4, a5, a6);
}

uint32_t KABGetDekForDisk(KABDiskCtx* ctx, void* dek, uint32_t length) {
  uint8_t keyInfo[100] = {};
  uint8_t keyId[17] = {};
  uint32_t out = 0;
  const int64_t result = ARVOUWAPI_KeyCacheGetKey(kab::crypto::KeyName(*ctx), keyInfo, keyId, dek, length, &out);
  if (result == 0) return KAB_OK;
  kab::Log("%s: Error: Could not find key in cache\n", ctx->uuidText);
  return KAB_NOT_FOUND;
}

uint32_t KABGetCryptoKeyForDisk(KABDiskCtx* ctx, plinth_Key** key) {
  uint8_t dek[KAB_DEK_SIZE] = {};
  uint32_t st = KABGetDekForDisk(ctx, dek, sizeof dek);
  if (st == KAB_OK) {
    const kab::plinth::Cipher* cipher = nullptr;
    kab::plinth::CipherError error = kab::plinth::CipherByName(kab::crypto::kCipherName, &cipher);
    if (error != kab::plinth::kCipherOk) {
      kab::Log("%s: Error: Failed to get cipher: %s\n", ctx->uuidText, kab::plinth::CipherErrorText(error));
      st = KAB_GENERAL_FAILURE;
    } else if ((error = kab::plinth::KeyCreate(cipher, dek, sizeof dek, key)) != kab::plinth::kCipherOk) {
      kab::Log("%s: Error: Failed to create crypto key from cipher: %s\n", ctx->uuidText,
               kab::plinth::CipherErrorText(error));
      st = KAB_GENERAL_FAILURE;
    }
  }
  OPENSSL_cleanse(dek, sizeof dek);
  return st;
}
