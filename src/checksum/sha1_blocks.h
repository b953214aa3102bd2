#pragma once
// SHA-1's block function in the forms a processor may offer. All give the same states.

#include <cstdint>

namespace kab::checksum {

/// Takes `blocks` consecutive 64-byte blocks into the state. Any processor.
void Sha1BlocksPlain(uint32_t state[5], const uint8_t* data, uint64_t blocks);

/// The same with the processor's SHA instructions; only where HasSha1Instructions().
void Sha1BlocksNi(uint32_t state[5], const uint8_t* data, uint64_t blocks);
/// Two messages at once: the second fills the gaps that the first one's dependency chain leaves.
void Sha1BlocksNi2(uint32_t states[2][5], const uint8_t* const data[2], uint64_t blocks);
bool HasSha1Instructions();

/// Sixteen messages at once, a vector lane each; only where HasSixteenLanes(). Word i of lane l is state[i][l].
void Sha1BlocksLanes16(uint32_t state[5][16], const uint8_t* const data[16], uint64_t blocks);
bool HasSixteenLanes();

}  // namespace kab::checksum
