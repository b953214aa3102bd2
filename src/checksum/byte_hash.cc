// Bob Jenkins's 64-bit hash of a byte string, with the level fixed. It decides where hashes lie on a disk.

#include <bit>
#include <cstring>

#include "kab/checksum.h"

namespace kab::checksum {
namespace {

constexpr uint32_t kNoHash = 0xBAD0007;
constexpr uint64_t kLevel = 42;
constexpr uint64_t kGolden = 0x9E3779B97F4A7C13;
constexpr uint32_t kBlock = 24;

static_assert(std::endian::native == std::endian::little, "words are loaded as they lie");

struct Words {
  uint64_t a, b, c;

  void Mix() {
    a = (a - b - c) ^ (c >> 43);
    b = (b - c - a) ^ (a << 9);
    c = (c - a - b) ^ (b >> 8);
    a = (a - b - c) ^ (c >> 38);
    b = (b - c - a) ^ (a << 23);
    c = (c - a - b) ^ (b >> 5);
    a = (a - b - c) ^ (c >> 35);
    b = (b - c - a) ^ (a << 49);
    c = (c - a - b) ^ (b >> 11);
    a = (a - b - c) ^ (c >> 12);
    b = (b - c - a) ^ (a << 18);
    c = (c - a - b) ^ (b >> 22);
  }
};

}  // namespace
}  // namespace kab::checksum

uint32_t plinth_HashBytes(const void* data, uint32_t len, uint64_t* out) {
  using namespace kab::checksum;
  if (data == nullptr || len == 0 || out == nullptr) return kNoHash;
  const auto* at = static_cast<const uint8_t*>(data);
  Words words{kLevel, kLevel, kGolden};
  uint32_t left = len;
  uint64_t block[3];
  for (; left >= kBlock; left -= kBlock, at += kBlock) {
    std::memcpy(block, at, kBlock);  // one load a word, whatever the alignment
    words.a += block[0];
    words.b += block[1];
    words.c += block[2];
    words.Mix();
  }
  words.c += len;
  block[0] = block[1] = block[2] = 0;
  std::memcpy(block, at, left);
  words.a += block[0];
  words.b += block[1];
  words.c += block[2] << 8;  // the low byte is the length's; at most 7 bytes are left here
  words.Mix();
  *out = words.c;
  return KAB_OK;
}
