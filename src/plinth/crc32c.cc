#include "plinth/crc32c.h"

#include <isa-l.h>

namespace kab::plinth {

void Crc32cInit(const void* /*zeros*/, uint32_t /*length*/) {}

uint32_t Crc32c(uint32_t crc, const void* data, uint32_t length) {
  // crc32_iscsi takes its length as an int and a writable buffer that it only reads.
  auto* bytes = const_cast<unsigned char*>(static_cast<const unsigned char*>(data));
  constexpr uint32_t kMost = 0x40000000;
  uint32_t state = ~crc;
  while (length > kMost) {
    state = crc32_iscsi(bytes, static_cast<int>(kMost), state);
    bytes += kMost;
    length -= kMost;
  }
  return ~crc32_iscsi(bytes, static_cast<int>(length), state);
}

}  // namespace kab::plinth
