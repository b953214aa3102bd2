#pragma once
// A vector of bits: a 16-byte header (bit count, word count), then 32-bit words, bit i in word i / 32 at i % 32.

#include <cstdint>

namespace kab::plinth {

/// A zeroed vector, header first, or null when memory is exhausted. Released with BitVectorFree.
uint32_t* BitVectorAlloc(uint64_t bits);
void BitVectorFree(uint32_t* vector);
/// The words behind the header.
inline uint32_t* BitVectorWords(uint32_t* vector) { return vector + 4; }

}  // namespace kab::plinth
