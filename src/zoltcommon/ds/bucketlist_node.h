#pragma once
// One node of a Bucketlist: up to 1024 tuples in a key area of three parts.
//
//   slot 0                                                                                     1023
//   | insert area, unsorted -->   | free |   sorted run, ascending   | free |   <-- tail area, unsorted |
//     bufferCount                   sortedStart, sortedCount                     tailCount
//
// A key beyond either end of the run is put there at once, so rising and falling keys need no sorting. Tuples removed
// from the tail area are replaced by its newest one, so `slack` stays 0.

#include <cstdint>

#include "kab/types.h"

namespace kab::ds {

constexpr uint32_t kNodeEntries = BUCKETLIST_NODE_ENTRIES;
constexpr uint32_t kMaxUnsorted = 128;

inline uint32_t Width(const BucketlistNode& node) {
  return node.sortedCount + node.bufferCount + node.tailCount - node.slack;
}

inline uint32_t Unsorted(const BucketlistNode& node) { return node.bufferCount + node.tailCount; }

/// An entry of a node.
struct Place {
  uint32_t slot;
  uint32_t rank;  ///< entries of the node before it
};

/// The smallest key that is at least `key`; false when there is none.
bool FindAtLeast(const BucketlistNode& node, uint64_t key, Place* place);

/// The largest key that is at most `key`; false when there is none.
bool FindAtMost(const BucketlistNode& node, uint64_t key, Place* place);

/// Merges the unsorted entries into the run.
void SortNode(BucketlistNode* node);

/// Adds a tuple of `words` words to a node that is not full.
void AddTuple(BucketlistNode* node, const uint64_t* tuple, uint32_t words);

/// Overwrites a slot; words that the tuple does not have are zero.
void WriteSlot(BucketlistNode* node, uint32_t slot, const uint64_t* tuple, uint32_t words);

/// Removes the entry in `slot`.
void RemoveSlot(BucketlistNode* node, uint32_t slot);

/// Moves the `count` smallest entries of `from` behind the entries of `to`, all of which are smaller. `to` has room.
void MoveSmallest(BucketlistNode* from, BucketlistNode* to, uint32_t count);

/// Moves the entries of `from` beyond its `keep` smallest to the empty node `to`.
void MoveUpper(BucketlistNode* from, BucketlistNode* to, uint32_t keep);

/// Moves the run to slot 0, so that rising keys find room behind it.
void MoveRunToFront(BucketlistNode* node);

/// Sets min key and first tuple from the entries, of which there is at least one.
void RefreshFirst(BucketlistNode* node);

}  // namespace kab::ds
