#pragma once
// Makes the library's allocations fail: it allocates by calloc alone, which this binary links with --wrap=calloc.

#include <cstddef>
#include <cstdint>

namespace kab_test {

inline uint32_t failEvery = 0;
inline uint32_t failAt = 0;
inline uint32_t allocations = 0;

/// From now on every n-th allocation fails; 0 ends it.
inline void FailAllocations(uint32_t every) {
  failEvery = every;
  failAt = 0;
}

/// The n-th allocation from now on fails, and no other.
inline void FailAllocationAt(uint32_t n) { failAt = n; }

}  // namespace kab_test

extern "C" {
void* __real_calloc(size_t count, size_t size);
__attribute__((used)) inline void* __wrap_calloc(size_t count, size_t size) {
  if (kab_test::failEvery != 0 && ++kab_test::allocations % kab_test::failEvery == 0) return nullptr;
  if (kab_test::failAt != 0 && --kab_test::failAt == 0) return nullptr;
  return __real_calloc(count, size);
}
}
