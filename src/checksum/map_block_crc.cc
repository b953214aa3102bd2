// The map blocks' checksum: an IEEE CRC-32 register over whole 32-bit words, four table look-ups a word.

#include <array>
#include <cstring>

#include "kab/checksum.h"

namespace kab {
namespace {

constexpr uint32_t kIeeePolynomial = 0xEDB88320;  // reflected

// Table j, entry i: the register after byte i and j zero bytes.
constexpr auto kSlices = [] {
  std::array<std::array<uint32_t, 256>, 4> tables{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t state = i;
    for (int bit = 0; bit < 8; ++bit) state = (state >> 1) ^ ((state & 1) != 0 ? kIeeePolynomial : 0);
    tables[0][i] = state;
  }
  for (size_t j = 1; j < 4; ++j) {
    for (size_t i = 0; i < 256; ++i) tables[j][i] = (tables[j - 1][i] >> 8) ^ tables[0][tables[j - 1][i] & 0xFF];
  }
  return tables;
}();
static_assert(kSlices[0][1] == 0x77073096);

}  // namespace
}  // namespace kab

uint32_t VBTMB_CRC32(uint32_t crc, const void* buf, uint64_t len) {
  if (buf == nullptr) return crc;
  const auto* bytes = static_cast<const uint8_t*>(buf);
  for (uint64_t words = len / 4; words != 0; --words, bytes += 4) {
    uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    crc ^= word;
    crc = kab::kSlices[3][crc & 0xFF] ^ kab::kSlices[2][(crc >> 8) & 0xFF] ^ kab::kSlices[1][(crc >> 16) & 0xFF] ^
          kab::kSlices[0][crc >> 24];
  }
  return crc;
}
