#include "ssdlog/mix_checksum.h"

#include "core/frame/bytes.h"

namespace kab::ssdlog {
namespace {

constexpr uint64_t kSeed = 42;
constexpr uint64_t kSeedC = 0x9E3779B97F4A7C13;
constexpr uint32_t kWords = 512;
constexpr uint32_t kChecksumWord = 7;
constexpr uint32_t kRecordLength = 140;
constexpr uint32_t kAtOnce = 8;

// By reference: a vector handed over by value would depend on the instruction set in its calling convention.
template <class W>
[[gnu::always_inline]] inline void MixOn(W& a, W& b, W& c) {  // a already less b and c
  a ^= c >> 43;
  b -= c, b -= a, b ^= a << 9;
  c -= a, c -= b, c ^= b >> 8;
  a -= b, a -= c, a ^= c >> 38;
  b -= c, b -= a, b ^= a << 23;
  c -= a, c -= b, c ^= b >> 5;
  a -= b, a -= c, a ^= c >> 35;
  b -= c, b -= a, b ^= a << 49;
  c -= a, c -= b, c ^= b >> 11;
  a -= b, a -= c, a ^= c >> 12;
  b -= c, b -= a, b ^= a << 18;
  c -= a, c -= b, c ^= b >> 22;
}

template <class W>
[[gnu::always_inline]] inline void Mix(W& a, W& b, W& c) {
  a -= b, a -= c;
  MixOn(a, b, c);
}

uint64_t Word(const uint8_t* block, uint32_t index) {
  return uint64_t{*reinterpret_cast<const le64*>(block + index * 8)};
}

// Eight blocks at once: a block a lane, in one register of eight lanes or in two of four, whose chains of steps are
// independent and fill the waits of one another.
using Two = uint64_t __attribute__((vector_size(16)));
using Four = uint64_t __attribute__((vector_size(32)));
using Eight = uint64_t __attribute__((vector_size(64)));

constexpr uint32_t kStride = kWords * 8;  // bytes from one block's word to the next block's

// A word and the one behind it of every lane's block.
[[gnu::always_inline]] inline void LoadPair(const uint8_t* at, Four& first, Four& second) {
  const Four even = __builtin_shufflevector(Load<Two>(at), Load<Two>(at + 2 * kStride), 0, 1, 2, 3);
  const Four odd = __builtin_shufflevector(Load<Two>(at + kStride), Load<Two>(at + 3 * kStride), 0, 1, 2, 3);
  first = __builtin_shufflevector(even, odd, 0, 4, 2, 6);
  second = __builtin_shufflevector(even, odd, 1, 5, 3, 7);
}

[[gnu::always_inline]] inline void LoadPair(const uint8_t* at, Eight& first, Eight& second) {
  Four low[2];
  Four high[2];
  LoadPair(at, low[0], low[1]);
  LoadPair(at + 4 * kStride, high[0], high[1]);
  first = __builtin_shufflevector(low[0], high[0], 0, 1, 2, 3, 4, 5, 6, 7);
  second = __builtin_shufflevector(low[1], high[1], 0, 1, 2, 3, 4, 5, 6, 7);
}

template <class V>
struct Chain {
  V a = kSeed - V{};
  V b = kSeed - V{};
  V c = kSeedC - V{};
};

// Two groups of three words, which begin at word k.
template <class V, uint32_t kChains>
[[gnu::always_inline]] inline void Step(Chain<V> (&chains)[kChains], const uint8_t* blocks, uint32_t k) {
  constexpr uint32_t kLanes = sizeof(V) / 8;
  V words[kChains][6];
  for (uint32_t i = 0; i < kChains; ++i) {
    auto& word = words[i];
    for (uint32_t j = 0; j < 6; j += 2) LoadPair(blocks + i * kLanes * kStride + (k + j) * 8, word[j], word[j + 1]);
    auto& [a, b, c] = chains[i];
    a += word[0];
    if (k + 1 != kChecksumWord) b += word[1];
    c += word[2];
    Mix(a, b, c);
  }
  for (uint32_t i = 0; i < kChains; ++i) {
    auto& [a, b, c] = chains[i];
    a += words[i][3];
    b += words[i][4];
    c += words[i][5];
    Mix(a, b, c);
  }
}
static_assert(kWords % 6 == 2 && kChecksumWord % 6 == 1);

template <class V>
[[gnu::always_inline]] inline void EightBlocks(const uint8_t* blocks, uint64_t* sums) {
  constexpr uint32_t kLanes = sizeof(V) / 8;
  constexpr uint32_t kChains = kAtOnce / kLanes;
  Chain<V> chains[kChains];
  for (uint32_t k = 0; k < kWords - 2; k += 6) Step(chains, blocks, k);
  for (uint32_t i = 0; i < kChains; ++i) {
    auto& [a, b, c] = chains[i];
    V first;
    V second;
    LoadPair(blocks + i * kLanes * kStride + (kWords - 2) * 8, first, second);
    c += kWords - V{};
    a += first;
    b += second;
    Mix(a, b, c);
    for (uint32_t lane = 0; lane < kLanes; ++lane) sums[i * kLanes + lane] = c[lane];
  }
}

#if defined(__x86_64__)
__attribute__((target("avx512f"))) void EightBlocksAvx512(const uint8_t* blocks, uint64_t* sums) {
  EightBlocks<Eight>(blocks, sums);
}
__attribute__((target("avx2"))) void EightBlocksAvx2(const uint8_t* blocks, uint64_t* sums) {
  EightBlocks<Four>(blocks, sums);
}
#endif
void EightBlocksPlain(const uint8_t* blocks, uint64_t* sums) { EightBlocks<Four>(blocks, sums); }

void EightBlocksHere(const uint8_t* blocks, uint64_t* sums) {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f")) return EightBlocksAvx512(blocks, sums);
  if (__builtin_cpu_supports("avx2")) return EightBlocksAvx2(blocks, sums);
#endif
  EightBlocksPlain(blocks, sums);
}

}  // namespace

uint64_t BlockChecksum(const uint8_t* block) {
  uint64_t a = kSeed;
  uint64_t b = kSeed;
  uint64_t c = kSeedC;
  for (uint32_t k = 0; k < kWords - 2; k += 3) {
    const uint64_t third = Word(block, k + 2);
    const uint64_t second = k + 1 != kChecksumWord ? Word(block, k + 1) : 0;
    // a + first - (b + second) - (c + third), with `c` last: it is what everything waits for, and what does not depend
    // on it is done meanwhile.
    uint64_t early = a + Word(block, k) - third - second - b;
    asm("" : "+r"(early));  // or the sum is put together the other way round
    a = early - c;
    b += second;
    c += third;
    MixOn(a, b, c);
  }
  c += kWords;  // words, not bytes, on purpose
  a += Word(block, kWords - 2);
  b += Word(block, kWords - 1);
  Mix(a, b, c);
  return c;
}

void BlockChecksums(const uint8_t* blocks, uint32_t count, uint64_t* sums) {
  for (; count >= kAtOnce; count -= kAtOnce, blocks += kAtOnce * kStride, sums += kAtOnce) {
    EightBlocksHere(blocks, sums);
  }
  for (uint32_t i = 0; i < count; ++i) sums[i] = BlockChecksum(blocks + uint64_t{i} * kStride);
}

uint64_t RecordChecksum(const uint8_t* record) {
  uint64_t a = kSeed;
  uint64_t b = kSeed;
  uint64_t c = kSeedC;
  for (uint32_t group = 0; group < 15; group += 3) {
    a += Word(record, group);
    b += Word(record, group + 1);
    c += Word(record, group + 2);
    Mix(a, b, c);
  }
  // The checksum field at 132 counts as 0: it is the upper half of the word at 128 and all that follows.
  c += kRecordLength;
  a += Word(record, 15);
  b += Word(record, 16) & 0xFFFFFFFF;
  Mix(a, b, c);
  return c;
}

}  // namespace kab::ssdlog
