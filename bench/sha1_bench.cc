// SHA-1 of 4 KiB blocks beside OpenSSL's: one buffer, and sixteen of them.

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <vector>

#include "kab/checksum.h"

namespace {

constexpr uint32_t kBlock = 4096;
constexpr uint32_t kBuffers = 16;

struct Blocks {
  Blocks() : bytes(kBuffers * kBlock) {
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 2654435761U >> 13);
    for (uint32_t i = 0; i < kBuffers; ++i) {
      in[i] = bytes.data() + i * kBlock;
      out[i] = digests[i].data();
    }
  }
  std::vector<uint8_t> bytes;
  std::array<std::array<uint8_t, 20>, kBuffers> digests;
  const void* in[kBuffers];
  uint8_t* out[kBuffers];
};

// With a context that is used again, as a caller with many blocks would.
struct Peer {
  ~Peer() { EVP_MD_CTX_free(ctx); }
  void Hash(const void* in, uint8_t* out) {
    EVP_DigestInit_ex(ctx, md, nullptr);
    EVP_DigestUpdate(ctx, in, kBlock);
    EVP_DigestFinal_ex(ctx, out, nullptr);
  }
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  const EVP_MD* md = EVP_sha1();
};

void BM_Sha1One4k_Kab(benchmark::State& state) {
  Blocks blocks;
  for (auto _ : state) {
    DDPSHA1Ctx ctx;
    DDPSHA1Init(&ctx);
    DDPSHA1Update(&ctx, blocks.in[0], kBlock);
    DDPSHA1Final(blocks.out[0], &ctx);
    benchmark::DoNotOptimize(blocks.digests);
  }
}
BENCHMARK(BM_Sha1One4k_Kab);

void BM_Sha1One4k_Peer(benchmark::State& state) {
  Blocks blocks;
  Peer peer;
  for (auto _ : state) {
    peer.Hash(blocks.in[0], blocks.out[0]);
    benchmark::DoNotOptimize(blocks.digests);
  }
  state.counters["target"] = 1.0;
}
BENCHMARK(BM_Sha1One4k_Peer);

void BM_Sha1Sixteen4k_Kab(benchmark::State& state) {
  Blocks blocks;
  for (auto _ : state) {
    DDPSHA1MultiBuffer(kBuffers, kBlock, nullptr, 0, blocks.in, blocks.out);
    benchmark::DoNotOptimize(blocks.digests);
  }
}
BENCHMARK(BM_Sha1Sixteen4k_Kab);

void BM_Sha1Sixteen4k_Peer(benchmark::State& state) {
  Blocks blocks;
  Peer peer;
  for (auto _ : state) {
    for (uint32_t i = 0; i < kBuffers; ++i) peer.Hash(blocks.in[i], blocks.out[i]);
    benchmark::DoNotOptimize(blocks.digests);
  }
  state.counters["target"] = 0.45;
}
BENCHMARK(BM_Sha1Sixteen4k_Peer);

}  // namespace
