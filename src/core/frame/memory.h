#pragma once
// Blocks of KABAlloc that let go by themselves.

#include <cstdint>
#include <memory>
#include <type_traits>

#include "kab/core.h"

namespace kab {

struct FreeBlock {
  void operator()(void* block) const noexcept { KABFree(&block); }
};

/// A block from KABAlloc, null when memory is exhausted.
template <class T>
using Owned = std::unique_ptr<T, FreeBlock>;

/// One zero-filled record.
template <class T>
requires std::is_trivially_destructible_v<T> Owned<T> AllocRecord() {
  return Owned<T>(static_cast<T*>(KABAlloc(sizeof(T))));
}

/// `size` zero bytes.
inline Owned<uint8_t[]> AllocBytes(uint64_t size) { return Owned<uint8_t[]>(static_cast<uint8_t*>(KABAlloc(size))); }

}  // namespace kab
