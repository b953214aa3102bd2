// Plain and encrypted transfers and the CRC, each beside the call that it cannot beat.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <isa-l.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "kab/checksum.h"
#include "kab/core.h"
#include "kab/crypto.h"
#include "kab/plinth.h"
#include "plinth/cipher.h"

namespace {

constexpr int64_t kData = 3145728;
constexpr uint32_t kLarge = 256 * 1024;

int64_t ServeKey(uint32_t, const uint64_t args[6], int64_t*) {
  for (uint64_t i = 0; i < args[4]; ++i) reinterpret_cast<uint8_t*>(args[3])[i] = static_cast<uint8_t>(i * 7);
  return 0;
}

// An open disk on an unlinked file of 8 MiB.
struct Disk {
  Disk() {
    char path[] = "/tmp/kab-bench-XXXXXX";
    ctx.fd = mkstemp(path);
    unlink(path);
    const std::vector<uint8_t> bytes(8 << 20, 0x5A);
    if (pwrite(ctx.fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) std::abort();
    ctx.dataOffset = static_cast<uint64_t>(kData);
    plinth_SetKeyCacheSyscall(ServeKey);
    KABGetCryptoKeyForDisk(&ctx, &ctx.cryptoKey);
  }
  ~Disk() {
    kab::plinth::KeyRelease(ctx.cryptoKey);
    close(ctx.fd);
  }
  KABDiskCtx ctx{};
};

// XTS over a re-used context, a 2048-byte unit at a time.
struct PeerXts {
  explicit PeerXts(int encrypt) : encrypt_(encrypt) {
    uint8_t key[64];
    for (size_t i = 0; i < 64; ++i) key[i] = static_cast<uint8_t>(i * 7);
    EVP_CipherInit_ex(ctx_, EVP_aes_256_xts(), nullptr, key, nullptr, encrypt);
  }
  ~PeerXts() { EVP_CIPHER_CTX_free(ctx_); }
  void Run(uint8_t* buf, uint32_t length) {
    uint8_t tweak[16] = {};
    int done = 0;
    for (uint64_t at = 0; at < length; at += 2048) {
      std::memcpy(tweak, &at, sizeof at);
      EVP_CipherInit_ex(ctx_, nullptr, nullptr, nullptr, tweak, encrypt_);
      EVP_CipherUpdate(ctx_, buf + at, &done, buf + at, 2048);
    }
  }
  EVP_CIPHER_CTX* ctx_ = EVP_CIPHER_CTX_new();
  int encrypt_;
};

void BM_PlainRead4k_Kab(benchmark::State& state) {
  Disk disk;
  uint8_t buf[4096];
  for (auto _ : state) benchmark::DoNotOptimize(KABRead(&disk.ctx, buf, sizeof buf, kData));
}
BENCHMARK(BM_PlainRead4k_Kab);

void BM_PlainRead4k_Peer(benchmark::State& state) {
  Disk disk;
  uint8_t buf[4096];
  for (auto _ : state) benchmark::DoNotOptimize(pread(disk.ctx.fd, buf, sizeof buf, kData));
  state.counters["target"] = 1.03;
}
BENCHMARK(BM_PlainRead4k_Peer);

void BM_EncryptedRead256k_Kab(benchmark::State& state) {
  Disk disk;
  disk.ctx.encrypted = 1;
  std::vector<uint8_t> buf(kLarge);
  for (auto _ : state) benchmark::DoNotOptimize(KABRead(&disk.ctx, buf.data(), kLarge, kData));
}
BENCHMARK(BM_EncryptedRead256k_Kab);

void BM_EncryptedRead256k_Peer(benchmark::State& state) {
  Disk disk;
  PeerXts xts(0);
  std::vector<uint8_t> buf(kLarge);
  for (auto _ : state) {
    benchmark::DoNotOptimize(pread(disk.ctx.fd, buf.data(), kLarge, kData));
    xts.Run(buf.data(), kLarge);
  }
  state.counters["target"] = 1.15;
}
BENCHMARK(BM_EncryptedRead256k_Peer);

void BM_EncryptedWrite256k_Kab(benchmark::State& state) {
  Disk disk;
  disk.ctx.encrypted = 1;
  std::vector<uint8_t> buf(kLarge);
  for (auto _ : state) benchmark::DoNotOptimize(KABWrite(&disk.ctx, buf.data(), kLarge, kData));
}
BENCHMARK(BM_EncryptedWrite256k_Kab);

void BM_EncryptedWrite256k_Peer(benchmark::State& state) {
  Disk disk;
  PeerXts xts(1);
  std::vector<uint8_t> buf(kLarge);
  for (auto _ : state) {
    xts.Run(buf.data(), kLarge);
    benchmark::DoNotOptimize(pwrite(disk.ctx.fd, buf.data(), kLarge, kData));
  }
}
BENCHMARK(BM_EncryptedWrite256k_Peer);

void BM_Crc32c_Kab(benchmark::State& state) {
  std::vector<uint8_t> buf(static_cast<size_t>(state.range(0)), 3);
  for (auto _ : state) {
    benchmark::DoNotOptimize(ARVOCrc32_Compute(0, buf.data(), static_cast<uint32_t>(buf.size())));
  }
}
BENCHMARK(BM_Crc32c_Kab)->Arg(4096)->Arg(131072);

void BM_Crc32c_Peer(benchmark::State& state) {
  std::vector<uint8_t> buf(static_cast<size_t>(state.range(0)), 3);
  for (auto _ : state) benchmark::DoNotOptimize(~crc32_iscsi(buf.data(), static_cast<int>(buf.size()), ~0U));
  state.counters["target"] = 1.05;
}
BENCHMARK(BM_Crc32c_Peer)->Arg(4096)->Arg(131072);

void BM_Init(benchmark::State& state) {
  for (auto _ : state) KABInit(0, nullptr);
}
BENCHMARK(BM_Init);

}  // namespace
