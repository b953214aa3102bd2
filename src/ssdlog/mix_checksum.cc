#include "ssdlog/mix_checksum.h"

#include "core/frame/bytes.h"

namespace kab::ssdlog {
namespace {

constexpr uint64_t kSeed = 42;
constexpr uint64_t kSeedC = 0x9E3779B97F4A7C13;
constexpr uint32_t kWords = 512;
constexpr uint32_t kChecksumWord = 7;
constexpr uint32_t kRecordLength = 140;
constexpr uint32_t kLanes = 8;

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

// One block a lane.
using Lanes = uint64_t __attribute__((vector_size(kLanes * 8)));

[[gnu::always_inline]] inline void LoadWord(const uint8_t* blocks, uint32_t index, Lanes& word) {
  const uint8_t* at = blocks + index * 8;
  constexpr uint32_t kStride = kWords * 8;
  word = Lanes{Load<uint64_t>(at),
               Load<uint64_t>(at + kStride),
               Load<uint64_t>(at + 2 * kStride),
               Load<uint64_t>(at + 3 * kStride),
               Load<uint64_t>(at + 4 * kStride),
               Load<uint64_t>(at + 5 * kStride),
               Load<uint64_t>(at + 6 * kStride),
               Load<uint64_t>(at + 7 * kStride)};
}

[[gnu::always_inline]] inline void EightBlocks(const uint8_t* blocks, uint64_t* sums) {
  Lanes a = kSeed - Lanes{};
  Lanes b = a;
  Lanes c = kSeedC - Lanes{};
  Lanes w;
  const auto step = [&](uint32_t k) __attribute__((always_inline)) {
    LoadWord(blocks, k, w);
    a += w;
    LoadWord(blocks, k + 1, w);
    if (k + 1 != kChecksumWord) b += w;
    LoadWord(blocks, k + 2, w);
    c += w;
    Mix(a, b, c);
  };
  for (uint32_t k = 0; k < kWords - 2; k += 3) step(k);
  c += uint64_t{kWords} - Lanes{};
  LoadWord(blocks, kWords - 2, w);
  a += w;
  LoadWord(blocks, kWords - 1, w);
  b += w;
  Mix(a, b, c);
  for (uint32_t lane = 0; lane < kLanes; ++lane) sums[lane] = c[lane];
}
static_assert(kChecksumWord % 3 == 1, "the checksum field is a second word of its group");

#if defined(__x86_64__)
__attribute__((target("avx512f"))) void EightBlocksAvx512(const uint8_t* blocks, uint64_t* sums) {
  EightBlocks(blocks, sums);
}
__attribute__((target("avx2"))) void EightBlocksAvx2(const uint8_t* blocks, uint64_t* sums) {
  EightBlocks(blocks, sums);
}
#endif
void EightBlocksPlain(const uint8_t* blocks, uint64_t* sums) { EightBlocks(blocks, sums); }

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
  for (; count >= kLanes; count -= kLanes, blocks += kLanes * kWords * 8, sums += kLanes) EightBlocksHere(blocks, sums);
  for (uint32_t i = 0; i < count; ++i) sums[i] = BlockChecksum(blocks + uint64_t{i} * kWords * 8);
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
