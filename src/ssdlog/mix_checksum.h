#pragma once
// The 64-bit mix that protects log blocks and checkpoint records.

#include <cstdint>

namespace kab::ssdlog {

/// Over 4096 bytes, with the checksum field at byte 56 taken as 0.
uint64_t BlockChecksum(const uint8_t* block);

/// The checksums of `count` blocks behind one another. A chain's own steps wait for each other; those of several
/// blocks do not, so that eight take little longer than one.
void BlockChecksums(const uint8_t* blocks, uint32_t count, uint64_t* sums);

/// Over the 140 bytes of a checkpoint record, with the checksum field at byte 132 taken as 0.
uint64_t RecordChecksum(const uint8_t* record);

}  // namespace kab::ssdlog
