#pragma once
// The host's CRC-32C, as a continuation: given the CRC of what came before, 0 for nothing.

#include <cstddef>
#include <cstdint>

namespace kab::plinth {

/// Prepares the CRC machinery; the processor's own instructions are picked by the library beneath.
void Crc32cInit(const void* zeros, uint32_t length);
uint32_t Crc32c(uint32_t crc, const void* data, uint32_t length);

}  // namespace kab::plinth
