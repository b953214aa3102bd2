// SHA-1 (FIPS 180-4): the incremental interface, the plain block function, and several messages side by side.

#include <algorithm>
#include <bit>
#include <cstring>

#include "checksum/sha1_blocks.h"
#include "kab/checksum.h"

namespace kab::checksum {
namespace {

constexpr uint32_t kInitial[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
constexpr uint32_t kBlock = DDP_SHA1_BLOCK_SIZE;
constexpr uint32_t kLengthAt = 56;  // the bit count fills the last block's tail
// Below this many messages the lanes that stay empty cost more than they save.
constexpr uint32_t kFewestForLanes = 6;

uint32_t LoadBig(const uint8_t* at) {
  uint32_t word;
  std::memcpy(&word, at, sizeof word);
  return __builtin_bswap32(word);
}

void StoreBig(uint8_t* at, uint32_t word) {
  word = __builtin_bswap32(word);
  std::memcpy(at, &word, sizeof word);
}

// Not to be left out as a dead store: the context may never be looked at again.
void Wipe(void* bytes, size_t size) {
  std::memset(bytes, 0, size);
  asm volatile("" : : "r"(bytes) : "memory");
}

void Blocks(uint32_t state[5], const uint8_t* data, uint64_t blocks) {
  static const bool instructions = HasSha1Instructions();
  if (instructions) return Sha1BlocksNi(state, data, blocks);
  Sha1BlocksPlain(state, data, blocks);
}

// What every message of one MultiBuffer call has in common: its cut into 64-byte blocks.
//
//    | whole blocks of the prefix | prefix's rest + head | whole blocks of the buffer | tail + padding, 1 or 2 blocks |
struct Cut {
  uint32_t state[5];    // after the whole blocks of the prefix
  const uint8_t* rest;  // of the prefix
  uint32_t restLen;     // 0 to 63
  uint32_t head;        // bytes of each buffer that fill the block begun by the rest
  uint64_t whole;       // whole blocks after the head
  uint32_t tailLen;     // bytes after those, or rest and buffer when they fill no block
  uint32_t tailBlocks;  // 1 or 2
  uint8_t bitCount[8];  // big-endian
};

Cut MakeCut(uint32_t len, const uint8_t* prefix, uint32_t prefixLen) {
  if (prefix == nullptr) prefixLen = 0;
  Cut cut{};
  std::memcpy(cut.state, kInitial, sizeof cut.state);
  const uint32_t wholePrefix = prefixLen / kBlock;
  if (wholePrefix != 0) Blocks(cut.state, prefix, wholePrefix);
  cut.restLen = prefixLen % kBlock;
  cut.rest = cut.restLen != 0 ? prefix + (prefixLen - cut.restLen) : nullptr;
  cut.head = cut.restLen != 0 && len >= kBlock - cut.restLen ? kBlock - cut.restLen : 0;
  if (cut.restLen != 0 && cut.head == 0) {
    cut.tailLen = cut.restLen + len;
  } else {
    cut.whole = (len - cut.head) / kBlock;
    cut.tailLen = (len - cut.head) % kBlock;
  }
  cut.tailBlocks = cut.tailLen < kLengthAt ? 1 : 2;
  const uint64_t bits = (uint64_t{prefixLen} + len) * 8;
  StoreBig(cut.bitCount, static_cast<uint32_t>(bits >> 32));
  StoreBig(cut.bitCount + 4, static_cast<uint32_t>(bits));
  return cut;
}

void FillFirst(const Cut& cut, const uint8_t* buffer, uint8_t* block) {
  std::memcpy(block, cut.rest, cut.restLen);
  std::memcpy(block + cut.restLen, buffer, cut.head);
}

void FillTail(const Cut& cut, const uint8_t* buffer, uint8_t* blocks) {
  const uint32_t size = cut.tailBlocks * kBlock;
  std::memset(blocks, 0, size);
  if (cut.restLen != 0 && cut.head == 0) {
    std::memcpy(blocks, cut.rest, cut.restLen);
    if (cut.tailLen > cut.restLen) std::memcpy(blocks + cut.restLen, buffer, cut.tailLen - cut.restLen);
  } else if (cut.tailLen != 0) {
    std::memcpy(blocks, buffer + cut.head + cut.whole * kBlock, cut.tailLen);
  }
  blocks[cut.tailLen] = 0x80;
  std::memcpy(blocks + size - sizeof cut.bitCount, cut.bitCount, sizeof cut.bitCount);
}

// A width's way to hold N states and to step them.
struct One {
  static constexpr uint32_t kLanes = 1;
  uint32_t state[5];
  void Set(uint32_t, uint32_t i, uint32_t word) { state[i] = word; }
  uint32_t Get(uint32_t, uint32_t i) const { return state[i]; }
  void Step(const uint8_t* const* data, uint64_t blocks) { Blocks(state, data[0], blocks); }
};
struct Two {
  static constexpr uint32_t kLanes = 2;
  uint32_t state[2][5];
  void Set(uint32_t lane, uint32_t i, uint32_t word) { state[lane][i] = word; }
  uint32_t Get(uint32_t lane, uint32_t i) const { return state[lane][i]; }
  void Step(const uint8_t* const* data, uint64_t blocks) { Sha1BlocksNi2(state, data, blocks); }
};
struct Sixteen {
  static constexpr uint32_t kLanes = 16;
  alignas(64) uint32_t state[5][16];
  void Set(uint32_t lane, uint32_t i, uint32_t word) { state[i][lane] = word; }
  uint32_t Get(uint32_t lane, uint32_t i) const { return state[i][lane]; }
  void Step(const uint8_t* const* data, uint64_t blocks) { Sha1BlocksLanes16(state, data, blocks); }
};

// Hashes up to a width's number of buffers; lanes without one repeat the first, and nobody looks at them.
template <class Width>
void HashTogether(const Cut& cut, const void* const* buffers, uint8_t* const* digests, uint32_t count) {
  Width width;
  uint8_t scratch[Width::kLanes][2 * kBlock];
  const uint8_t* buffer[Width::kLanes];
  const uint8_t* at[Width::kLanes];
  for (uint32_t lane = 0; lane < Width::kLanes; ++lane) {
    buffer[lane] = static_cast<const uint8_t*>(buffers[lane < count ? lane : 0]);
    for (uint32_t i = 0; i < 5; ++i) width.Set(lane, i, cut.state[i]);
  }
  if (cut.head != 0) {
    for (uint32_t lane = 0; lane < Width::kLanes; ++lane) {
      FillFirst(cut, buffer[lane], scratch[lane]);
      at[lane] = scratch[lane];
    }
    width.Step(at, 1);
  }
  if (cut.whole != 0) {
    for (uint32_t lane = 0; lane < Width::kLanes; ++lane) at[lane] = buffer[lane] + cut.head;
    width.Step(at, cut.whole);
  }
  for (uint32_t lane = 0; lane < Width::kLanes; ++lane) {
    FillTail(cut, buffer[lane], scratch[lane]);
    at[lane] = scratch[lane];
  }
  width.Step(at, cut.tailBlocks);
  for (uint32_t lane = 0; lane < count; ++lane) {
    for (uint32_t i = 0; i < 5; ++i) StoreBig(digests[lane] + 4 * i, width.Get(lane, i));
  }
  Wipe(scratch, sizeof scratch);
}

}  // namespace

void Sha1BlocksPlain(uint32_t state[5], const uint8_t* data, uint64_t blocks) {
  for (; blocks != 0; --blocks, data += kBlock) {
    uint32_t w[16];
    for (uint32_t i = 0; i < 16; ++i) w[i] = LoadBig(data + 4 * i);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    const auto round = [&](uint32_t t, uint32_t f, uint32_t k) {
      if (t >= 16) w[t % 16] = std::rotl(w[(t + 13) % 16] ^ w[(t + 8) % 16] ^ w[(t + 2) % 16] ^ w[t % 16], 1);
      const uint32_t next = std::rotl(a, 5) + f + e + k + w[t % 16];
      e = d;
      d = c;
      c = std::rotl(b, 30);
      b = a;
      a = next;
    };
    for (uint32_t t = 0; t < 20; ++t) round(t, d ^ (b & (c ^ d)), 0x5A827999);
    for (uint32_t t = 20; t < 40; ++t) round(t, b ^ c ^ d, 0x6ED9EBA1);
    for (uint32_t t = 40; t < 60; ++t) round(t, (b & c) | (d & (b | c)), 0x8F1BBCDC);
    for (uint32_t t = 60; t < 80; ++t) round(t, b ^ c ^ d, 0xCA62C1D6);
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
  }
}

}  // namespace kab::checksum

void DDPSHA1Init(DDPSHA1Ctx* ctx) {
  std::memcpy(ctx->state, kab::checksum::kInitial, sizeof ctx->state);
  ctx->bitCount[0] = ctx->bitCount[1] = 0;
}

void DDPSHA1Update(DDPSHA1Ctx* ctx, const void* data, uint64_t len) {
  using kab::checksum::kBlock;
  const auto* in = static_cast<const uint8_t*>(data);
  const uint32_t pending = ctx->bitCount[0] / 8 % kBlock;
  const auto bitsLow = static_cast<uint32_t>(len << 3);
  ctx->bitCount[0] += bitsLow;
  ctx->bitCount[1] += static_cast<uint32_t>(len >> 29) + (ctx->bitCount[0] < bitsLow ? 1 : 0);
  if (len == 0) return;

  if (pending != 0) {
    const uint64_t taken = std::min<uint64_t>(len, kBlock - pending);
    std::memcpy(ctx->buffer + pending, in, taken);
    in += taken;
    len -= taken;
    if (pending + taken < kBlock) return;
    kab::checksum::Blocks(ctx->state, ctx->buffer, 1);
  }
  if (len >= kBlock) {
    kab::checksum::Blocks(ctx->state, in, len / kBlock);
    in += len / kBlock * kBlock;
    len %= kBlock;
  }
  if (len != 0) std::memcpy(ctx->buffer, in, len);
}

void DDPSHA1Final(uint8_t* digest, DDPSHA1Ctx* ctx) {
  using namespace kab::checksum;
  uint32_t pending = ctx->bitCount[0] / 8 % kBlock;
  ctx->buffer[pending++] = 0x80;
  if (pending > kLengthAt) {
    std::memset(ctx->buffer + pending, 0, kBlock - pending);
    Blocks(ctx->state, ctx->buffer, 1);
    pending = 0;
  }
  std::memset(ctx->buffer + pending, 0, kLengthAt - pending);
  StoreBig(ctx->buffer + kLengthAt, ctx->bitCount[1]);
  StoreBig(ctx->buffer + kLengthAt + 4, ctx->bitCount[0]);
  Blocks(ctx->state, ctx->buffer, 1);
  for (uint32_t i = 0; i < 5; ++i) StoreBig(digest + 4 * i, ctx->state[i]);
  Wipe(ctx, sizeof *ctx);
}

void DDPSHA1MultiBuffer(uint32_t count, uint32_t len, const void* prefix, uint32_t prefixLen,
                        const void* const* buffers, uint8_t* const* digests) {
  using namespace kab::checksum;
  if (count == 0) return;
  static const bool lanes = HasSixteenLanes();
  static const bool instructions = HasSha1Instructions();
  const Cut cut = MakeCut(len, static_cast<const uint8_t*>(prefix), prefixLen);
  uint32_t done = 0;
  while (done < count) {
    const uint32_t left = count - done;
    uint32_t taken = 1;
    if (lanes && left >= kFewestForLanes) {
      taken = std::min(left, Sixteen::kLanes);
      HashTogether<Sixteen>(cut, buffers + done, digests + done, taken);
    } else if (instructions && left >= 2) {
      taken = Two::kLanes;
      HashTogether<Two>(cut, buffers + done, digests + done, taken);
    } else {
      HashTogether<One>(cut, buffers + done, digests + done, taken);
    }
    done += taken;
  }
}
