#include "sample/checksum.h"

namespace sample {

uint32_t Crc32c(std::span<const uint8_t> bytes, uint32_t crc) {
  uint32_t state = ~crc;
  for (const uint8_t byte : bytes) {
    state ^= byte;
    for (int bit = 0; bit < 8; bit++) state = (state >> 1) ^ ((state & 1) != 0 ? 0x82f63b78U : 0U);
  }
  return ~state;
}

uint32_t BlockCrc(std::span<const uint8_t> bytes) { return Crc32c(bytes) ^ 0x98f94189U; }

}  // namespace sample
