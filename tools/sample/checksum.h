#pragma once
// The builders' own checksums: plain loops, kept apart from the library's so that neither can hide the other's fault.

#include <cstdint>
#include <span>

namespace sample {

/// CRC-32C of `bytes` continued from `crc` (0 for a beginning); of one zero byte: 0x527d5351.
uint32_t Crc32c(std::span<const uint8_t> bytes, uint32_t crc = 0);

/// CRC-32C as metadata blocks of 4096 bytes store it: of an all-zero block it is 0.
uint32_t BlockCrc(std::span<const uint8_t> bytes);

}  // namespace sample
