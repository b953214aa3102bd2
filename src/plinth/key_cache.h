#pragma once
// The host's key cache, reached through one replaceable door (plinth_SetKeyCacheSyscall).

#include <cstdint>

namespace kab::plinth {

enum KeyCacheCall : uint32_t {
  kKeyCacheAdd = 2321,
  kKeyCacheRemove = 2322,
  kKeyCacheGet = 2323,
  kKeyCacheLookup = 2324
};

/// Makes one call: returns the first result word and stores the second in `err`.
int64_t KeyCacheCallHost(uint32_t number, const uint64_t args[6], int64_t* err);

}  // namespace kab::plinth
