#pragma once
// Searches over a node's keys: one plain form and vector forms of the same answers, picked once by what the processor
// has.

#include <cstdint>
#include <span>

namespace kab::ds {

/// What a pass over unsorted keys found.
struct Scan {
  uint32_t counted;  ///< AtLeast: keys below the bound. AtMost: keys not above it
  uint32_t slot;     ///< where the nearest qualifying key stands; the count of keys when none qualifies
};

struct KeySearch {
  const char* name;
  /// The number of keys below `key` among `count` ascending keys.
  uint32_t (*lowerBound)(const uint64_t* keys, uint32_t count, uint64_t key);
  /// Unsorted keys: the smallest one that is at least `key`.
  Scan (*atLeast)(const uint64_t* keys, uint32_t count, uint64_t key);
  /// Unsorted keys: the largest one that is at most `key`.
  Scan (*atMost)(const uint64_t* keys, uint32_t count, uint64_t key);
  /// order[r] becomes the index of the key of rank r; equal keys stay in order of index.
  void (*sort)(const uint64_t* keys, uint32_t count, uint16_t* order);
};

/// The fastest one that this processor runs.
extern const KeySearch& kKeySearch;

/// All that this processor runs, the plain one first.
std::span<const KeySearch* const> UsableKeySearches();

}  // namespace kab::ds
