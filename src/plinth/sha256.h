#pragma once
// SHA-256 as a running state: start, feed, finish.

#include <cstddef>
#include <cstdint>

namespace kab::plinth {

inline constexpr size_t kSha256Size = 32;

/// A new state, or null when memory is exhausted. It ends with Sha256Finish or Sha256Abandon.
void* Sha256Start();
void Sha256Feed(void* state, const void* data, size_t length);
/// Writes the digest and releases the state.
void Sha256Finish(void* state, uint8_t digest[kSha256Size]);
/// Releases the state without a digest; null is allowed.
void Sha256Abandon(void* state);

}  // namespace kab::plinth
