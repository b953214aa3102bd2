// Keys from the cache and the encrypted path, against an XTS of the test's own over OpenSSL.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "kab/core.h"
#include "kab/crypto.h"
#include "kab/plinth.h"
#include "plinth/cipher.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using testing::HasSubstr;

constexpr uint64_t kData = 3145728;
constexpr uint32_t kBlock = 2048;

struct KeyCache {
  std::map<std::string, std::vector<uint8_t>> keys;
  uint32_t number = 0;
  uint64_t args[6] = {};
  int64_t result = 0;
  int64_t err = 0;
};
KeyCache* cache;

int64_t ServeKey(uint32_t number, const uint64_t args[6], int64_t* err) {
  cache->number = number;
  std::memcpy(cache->args, args, sizeof cache->args);
  *err = cache->err;
  if (number != 2323) return cache->result;
  const auto found = cache->keys.find(reinterpret_cast<const char*>(args[0]));
  if (found == cache->keys.end()) return -77;
  std::memcpy(reinterpret_cast<void*>(args[3]), found->second.data(), args[4]);
  return 0;
}

std::vector<uint8_t> Xts(const std::vector<uint8_t>& key, uint64_t tweak, const uint8_t* in, int encrypt) {
  uint8_t iv[16] = {};
  std::memcpy(iv, &tweak, 8);
  std::vector<uint8_t> out(kBlock);
  int done = 0;
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  EVP_CipherInit_ex(ctx, EVP_aes_256_xts(), nullptr, key.data(), iv, encrypt);
  EVP_CipherUpdate(ctx, out.data(), &done, in, kBlock);
  EVP_CIPHER_CTX_free(ctx);
  return out;
}

class EncryptedIoTest : public testing::Test {
 protected:
  static constexpr uint32_t kBlocks = 300;  // more than two runs

  void SetUp() override {
    cache = &cache_;
    plinth_SetKeyCacheSyscall(ServeKey);
    key_.resize(64);
    for (uint8_t& byte : key_) byte = static_cast<uint8_t>(random_());
    cache_.keys["disk"] = key_;
    std::strcpy(ctx_.uuidText, "disk");
    ctx_.dataOffset = kData;
    path_ = dir_.File("disk");
    ctx_.fd = open(path_.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(KABGetCryptoKeyForDisk(&ctx_, &ctx_.cryptoKey), KAB_OK);
    ctx_.encrypted = 1;
    plain_.resize(kData + kBlocks * kBlock);
    for (uint8_t& byte : plain_) byte = static_cast<uint8_t>(random_());
    Store();
  }
  void TearDown() override {
    kab::plinth::KeyRelease(ctx_.cryptoKey);
    close(ctx_.fd);
    plinth_SetKeyCacheSyscall(nullptr);
  }

  std::vector<uint8_t> Enciphered() const {
    auto bytes = plain_;
    for (uint64_t at = kData; at < bytes.size(); at += kBlock) {
      const auto block = Xts(key_, at - kData, plain_.data() + at, 1);
      std::copy(block.begin(), block.end(), bytes.begin() + static_cast<ptrdiff_t>(at));
    }
    return bytes;
  }
  void Store() const {
    const auto bytes = Enciphered();
    ASSERT_EQ(pwrite(ctx_.fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }

  kab_test::LogCapture log_;
  kab_test::TempDir dir_;
  std::mt19937_64 random_{7};
  KeyCache cache_;
  std::vector<uint8_t> key_;
  std::vector<uint8_t> plain_;
  std::string path_;
  KABDiskCtx ctx_{};
};

TEST_F(EncryptedIoTest, RandomReadsAndWritesMatchThePlainPicture) {
  for (int round = 0; round < 400; ++round) {
    const uint64_t span = kBlocks * kBlock;
    const uint64_t at = random_() % span;
    // Short pieces around block borders as well as runs of many whole blocks.
    const uint64_t most = round % 3 == 0 ? span : 3 * kBlock;
    const auto length = static_cast<uint32_t>(std::min(random_() % most, span - at));
    const uint64_t start = round % 5 == 0 ? at - at % kBlock : at;
    std::vector<uint8_t> buf(length);
    if (round % 2 == 0) {
      ASSERT_EQ(KABRead(&ctx_, buf.data(), length, static_cast<int64_t>(kData + start)), KAB_OK);
      ASSERT_EQ(std::memcmp(buf.data(), plain_.data() + kData + start, length), 0) << start << " " << length;
    } else {
      for (uint8_t& byte : buf) byte = static_cast<uint8_t>(random_());
      ASSERT_EQ(KABWrite(&ctx_, buf.data(), length, static_cast<int64_t>(kData + start)), KAB_OK);
      std::copy(buf.begin(), buf.end(), plain_.begin() + static_cast<ptrdiff_t>(kData + start));
    }
  }
  EXPECT_EQ(kab_test::ReadFile(path_), Enciphered());
  EXPECT_EQ(log_.Text(), "");
}

TEST_F(EncryptedIoTest, OnlyTheStartDecidesWhatIsClear) {
  const auto stored = Enciphered();
  std::vector<uint8_t> buf(4096);
  ASSERT_EQ(KABRead(&ctx_, buf.data(), 4096, kData - 1), KAB_OK);
  EXPECT_EQ(std::memcmp(buf.data(), stored.data() + kData - 1, 4096), 0);
}

TEST_F(EncryptedIoTest, AFailingBlockIsNamedAndThoseBeforeItAreThere) {
  ASSERT_EQ(truncate(path_.c_str(), kData + 10 * kBlock + 100), 0);
  std::vector<uint8_t> buf(12 * kBlock);
  EXPECT_EQ(KABRead(&ctx_, buf.data(), 12 * kBlock, kData), KAB_IO_ERROR);
  EXPECT_EQ(log_.Text(), "disk: Error: Failed to read block at offset " + std::to_string(kData + 10 * kBlock) + "\n");
  EXPECT_EQ(std::memcmp(buf.data(), plain_.data() + kData, 10 * kBlock), 0);

  log_.Clear();
  const int writable = ctx_.fd;
  ctx_.fd = open(path_.c_str(), O_RDONLY);
  EXPECT_EQ(KABWrite(&ctx_, buf.data(), 2 * kBlock, kData + kBlock), KAB_IO_ERROR);
  EXPECT_EQ(log_.Text(), "disk: Error: Failed to write block at offset " + std::to_string(kData + kBlock) + ":" +
                             std::strerror(EBADF) + "\n");
  close(ctx_.fd);
  ctx_.fd = writable;
}

TEST_F(EncryptedIoTest, BlockOperationsUseTheOffsetAsTheirTweak) {
  uint8_t in[kBlock];
  uint8_t out[kBlock];
  for (uint8_t& byte : in) byte = static_cast<uint8_t>(random_());
  ASSERT_EQ(KABEncryptBlock(ctx_.cryptoKey, 2048, in, out), KAB_OK);
  EXPECT_EQ(std::memcmp(out, Xts(key_, 2048, in, 1).data(), kBlock), 0);
  uint8_t back[kBlock];
  EXPECT_EQ(KABDecryptDataFunc(ctx_.cryptoKey, 2048, out, back), 1U);
  EXPECT_EQ(std::memcmp(in, back, kBlock), 0);
  // A key that cannot be copied: 14 in both directions.
  EXPECT_EQ(KABDecryptBlock(nullptr, 0, in, out), KAB_DECRYPT_FAILED);
  EXPECT_EQ(KABEncryptBlock(nullptr, 0, in, out), KAB_DECRYPT_FAILED);
  EXPECT_EQ(KABDecryptDataFunc(nullptr, 0, in, out), 0U);
}

TEST_F(EncryptedIoTest, TheKeyNameFollowsTheDisk) {
  KABDiskCtx disk{};
  std::strcpy(disk.uuidText, "first");
  std::strcpy(disk.altUuidText, "second");
  const struct {
    uint8_t type, state;
    const char* name;
  } cases[] = {{0, 0, "first"}, {0, 0x80, "first"}, {11, 0x80, "first"}, {11, 0, "second"}};
  for (const auto& c : cases) {
    disk.meta[8] = c.type;
    disk.meta[9] = c.state;
    cache_.keys.clear();
    cache_.keys[c.name] = key_;
    uint8_t dek[64];
    EXPECT_EQ(KABGetDekForDisk(&disk, dek, 64), KAB_OK) << c.name;
    EXPECT_EQ(std::memcmp(dek, key_.data(), 64), 0);
    cache_.keys.clear();
    EXPECT_EQ(KABGetDekForDisk(&disk, dek, 64), KAB_NOT_FOUND);  // whatever the host returned
  }
  EXPECT_THAT(log_.Text(), HasSubstr("first: Error: Could not find key in cache\n"));

  log_.Clear();
  plinth_Key* key = nullptr;
  cache_.keys["second"] = std::vector<uint8_t>(64, 1);  // equal halves are no key
  EXPECT_EQ(KABGetCryptoKeyForDisk(&disk, &key), KAB_GENERAL_FAILURE);
  EXPECT_EQ(key, nullptr);
  EXPECT_EQ(log_.Text(), "first: Error: Failed to create crypto key from cipher: Invalid key\n");
}

TEST_F(EncryptedIoTest, TheCacheCallsPassTheirWords) {
  cache_.result = 5;
  cache_.err = 22;
  errno = 0;
  EXPECT_EQ(ARVOUWAPI_KeyCacheAddKey(1, 2, 3, 4, 5, 6), 5);
  EXPECT_EQ(errno, -22);
  EXPECT_EQ(cache_.number, 2321U);
  EXPECT_THAT(cache_.args, testing::ElementsAre(1, 2, 3, 4, 5, 6));
  ARVOUWAPI_KeyCacheRemoveKey(1, 2, 3, 4, 5, 6);
  EXPECT_EQ(cache_.number, 2322U);
  EXPECT_THAT(cache_.args, testing::ElementsAre(1, 0, 3, 4, 5, 6));
  cache_.err = 0;
  errno = 0;
  ARVOUWAPI_KeyCacheLookupKeyID(6, 5, 4, 3, 2, 1);
  EXPECT_EQ(cache_.number, 2324U);
  EXPECT_EQ(errno, 0);
  EXPECT_THAT(cache_.args, testing::ElementsAre(6, 5, 4, 3, 2, 1));
}

}  // namespace
