// What every Arvo disk carries in front of its data area.

#include <cstring>

#include "core/frame/bytes.h"
#include "core/frame/log.h"
#include "core/io/arvo_meta_format.h"
#include "kab/core.h"
#include "kab/crypto.h"
#include "plinth/cipher.h"

int32_t KABGetDevIdx(const uint8_t* meta, uint64_t uuidLow, uint64_t uuidHigh) {
  for (int32_t i = 0; i < KAB_DISKS_PER_GROUP; ++i) {
    const uint8_t* uuid = meta + kab::meta::kGroupUuids + static_cast<size_t>(i) * kab::meta::kUuidSize;
    if (kab::Load<uint64_t>(uuid) == uuidLow && kab::Load<uint64_t>(uuid + 8) == uuidHigh) return i;
  }
  return -1;
}

uint32_t KABReadArvoMeta(KABDiskCtx* ctx, void* buf, uint64_t* offsetOut) {
  const uint32_t st = KABDiskRead(static_cast<uint32_t>(ctx->fd), buf, KAB_META_BLOCK_SIZE, kab::kArvoMetaOffset);
  if (st != KAB_OK) kab::Log("Error: Failed to read Arvo metadata: %s\n", KABErrorStr(st));
  if (offsetOut != nullptr) *offsetOut = kab::kArvoMetaOffset;
  return st;
}

uint32_t KABValidateArvoMeta(void) { return 1; }

uint32_t KABReadEncrMeta(KABDiskCtx* ctx, void* buf) {
  return KABDiskRead(static_cast<uint32_t>(ctx->fd), buf, kab::kEncrMetaSize, kab::kEncrMetaOffset);
}

uint32_t KABReadAWSEncrMeta(KABDiskCtx* ctx, void* buf) {
  return KABDiskRead(static_cast<uint32_t>(ctx->fd), buf, kab::kEncrMetaSize, kab::kAwsEncrMetaOffset);
}

uint64_t KABGetSecondaryGPTSizeBytes(void) { return kab::kSecondaryGptSize; }

uint32_t KABUpdateDiskEncryptionInfo(KABDiskCtx* ctx, const char* /*path*/) {
  bool encrypted = false;
  if (kab::IsType11(ctx->meta)) {
    encrypted = (ctx->meta[kab::meta::kState11] & 0x08) != 0;
  } else {
    uint8_t encrMeta[kab::kEncrMetaSize];
    const uint32_t st = KABReadEncrMeta(ctx, encrMeta);
    if (st != KAB_OK) {
      kab::Log("%s: Error: Failed to read encrypted metadata from disk\n", ctx->uuidText);
      return st;
    }
    encrypted = (encrMeta[8] & 0x01) != 0;
  }
  if (!encrypted) return KAB_OK;

  ctx->encrypted = 1;  // before the key is there: without it, nothing may read the data area as if it were clear
  plinth_Key* key = nullptr;
  const uint32_t st = KABGetCryptoKeyForDisk(ctx, &key);
  if (st != KAB_OK) {
    kab::Log("%s: Error: Failed to get crypto key for encrypted disk\n", ctx->uuidText);
    return st;
  }
  kab::plinth::KeyRelease(ctx->cryptoKey);  // of an earlier call
  ctx->cryptoKey = key;
  return KAB_OK;
}
