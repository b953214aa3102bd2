#include "plinth/bit_vector.h"

#include <cstdlib>
#include <cstring>

namespace kab::plinth {

uint32_t* BitVectorAlloc(uint64_t bits) {
  if (bits > UINT64_MAX - 31) return nullptr;
  const uint64_t words = (bits + 31) / 32;
  auto* vector = static_cast<uint32_t*>(std::calloc(words + 4, sizeof(uint32_t)));
  if (vector == nullptr) return nullptr;
  std::memcpy(vector, &bits, sizeof bits);
  std::memcpy(vector + 2, &words, sizeof words);
  return vector;
}

void BitVectorFree(uint32_t* vector) { std::free(vector); }

}  // namespace kab::plinth
