#pragma once
// The min keys of a Bucketlist's nodes side by side, so that the node of a key is found without chasing links. The
// skip list holds the same order: when there is no memory for the directory, it answers alone.

#include <cstdint>

#include "kab/types.h"

// keys[capacity], then nodes[capacity], in one block.
struct BucketlistDirectory {
  uint32_t count;
  uint32_t capacity;
  uint64_t* keys;
  BucketlistNode** nodes;
};

namespace kab::ds {

/// The last node if its min key is at most `key`, which is where rising keys go; else, or without a directory, null.
inline BucketlistNode* DirectoryLastFor(const Bucketlist& list, uint64_t key) {
  const BucketlistDirectory* directory = list.directory;
  if (directory == nullptr || directory->count == 0) return nullptr;
  const uint32_t last = directory->count - 1;
  return directory->keys[last] <= key ? directory->nodes[last] : nullptr;
}

/// The last node whose min key is at most `key`, or the first node. False when the list has no usable directory.
bool DirectoryFind(const Bucketlist& list, uint64_t key, BucketlistNode** found);

/// The last node; false when the list has no usable directory.
bool DirectoryLast(const Bucketlist& list, BucketlistNode** found);

/// Follows a node that was just linked.
void DirectoryAdd(Bucketlist* list, BucketlistNode* node);

/// Follows a node that is about to be unlinked.
void DirectoryRemove(Bucketlist* list, const BucketlistNode* node);

/// Follows a node whose min key was `oldKey`.
void DirectoryRekey(Bucketlist* list, const BucketlistNode* node, uint64_t oldKey);

/// Gives the directory up.
void DirectoryFree(Bucketlist* list);

}  // namespace kab::ds
