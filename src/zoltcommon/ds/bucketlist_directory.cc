#include "zoltcommon/ds/bucketlist_directory.h"

#include <bit>
#include <cstring>

#include "kab/core.h"
#include "kab/indexes.h"

namespace kab::ds {
namespace {

constexpr uint32_t kNone = ~uint32_t{0};
constexpr uint32_t kLeastNodes = 2;

// The number of keys that are at most `key`.
uint32_t UpperBound(const BucketlistDirectory& directory, uint64_t key) {
  const uint64_t* base = directory.keys;
  uint32_t count = directory.count;
  while (count > 1) {
    const uint32_t half = count / 2;
    base = base[half - 1] <= key ? base + half : base;
    count -= half;
  }
  return static_cast<uint32_t>(base - directory.keys) + (count == 1 && *base <= key ? 1 : 0);
}

// Where `node` stands, whose key there is `key`. Nodes may share a min key.
uint32_t IndexOf(const BucketlistDirectory& directory, const BucketlistNode* node, uint64_t key) {
  for (uint32_t i = UpperBound(directory, key); i > 0 && directory.keys[i - 1] == key; --i) {
    if (directory.nodes[i - 1] == node) return i - 1;
  }
  return kNone;
}

BucketlistDirectory* Allocate(uint32_t capacity) {
  const uint64_t arrays = uint64_t{capacity} * (sizeof(uint64_t) + sizeof(BucketlistNode*));
  auto* directory = static_cast<BucketlistDirectory*>(KABAlloc(sizeof(BucketlistDirectory) + arrays));
  if (directory == nullptr) return nullptr;
  directory->capacity = capacity;
  directory->keys = reinterpret_cast<uint64_t*>(directory + 1);
  directory->nodes = reinterpret_cast<BucketlistNode**>(directory->keys + capacity);
  return directory;
}

void Build(Bucketlist* list) {
  BucketlistDirectory* directory = Allocate(list->stats.numNodes * 2);
  if (directory == nullptr) return;
  for (BucketlistNode* node = list->levelHeads[0]; node != nullptr; node = node->forward[0]) {
    directory->keys[directory->count] = node->minKey;
    directory->nodes[directory->count++] = node;
  }
  list->directory = directory;
}

bool Grow(Bucketlist* list) {
  BucketlistDirectory* old = list->directory;
  BucketlistDirectory* grown = Allocate(old->capacity * 2);
  if (grown == nullptr) return false;
  grown->count = old->count;
  std::memcpy(grown->keys, old->keys, old->count * sizeof old->keys[0]);
  std::memcpy(grown->nodes, old->nodes, old->count * sizeof old->nodes[0]);
  KABFree(&list->directory);
  list->directory = grown;
  return true;
}

}  // namespace

bool DirectoryFind(const Bucketlist& list, uint64_t key, BucketlistNode** found) {
  const BucketlistDirectory* directory = list.directory;
  if (directory == nullptr || directory->count == 0) return false;
  // Keys mostly rise: the last node is asked first.
  uint32_t index = directory->count - 1;
  if (directory->keys[index] > key) {
    const uint32_t notAbove = UpperBound(*directory, key);
    index = notAbove > 0 ? notAbove - 1 : 0;
  }
  *found = directory->nodes[index];
  return true;
}

bool DirectoryLast(const Bucketlist& list, BucketlistNode** found) {
  const BucketlistDirectory* directory = list.directory;
  if (directory == nullptr || directory->count == 0) return false;
  *found = directory->nodes[directory->count - 1];
  return true;
}

void DirectoryAdd(Bucketlist* list, BucketlistNode* node) {
  if (list->directory == nullptr) {
    // Tried again whenever the list has doubled: one short of memory costs speed for a while only.
    if (list->stats.numNodes >= kLeastNodes && std::has_single_bit(list->stats.numNodes)) Build(list);
    return;
  }
  uint32_t index = 0;
  if (node != list->levelHeads[0]) {
    const uint32_t before = IndexOf(*list->directory, node->back, node->back->minKey);
    if (before == kNone) return DirectoryFree(list);
    index = before + 1;
  }
  if (list->directory->count == list->directory->capacity && !Grow(list)) return DirectoryFree(list);
  BucketlistDirectory* directory = list->directory;
  const uint32_t behind = directory->count - index;
  std::memmove(directory->keys + index + 1, directory->keys + index, behind * sizeof directory->keys[0]);
  std::memmove(directory->nodes + index + 1, directory->nodes + index, behind * sizeof directory->nodes[0]);
  directory->keys[index] = node->minKey;
  directory->nodes[index] = node;
  ++directory->count;
}

void DirectoryRemove(Bucketlist* list, const BucketlistNode* node) {
  BucketlistDirectory* directory = list->directory;
  if (directory == nullptr) return;
  const uint32_t index = IndexOf(*directory, node, node->minKey);
  if (index == kNone) return DirectoryFree(list);
  const uint32_t behind = --directory->count - index;
  std::memmove(directory->keys + index, directory->keys + index + 1, behind * sizeof directory->keys[0]);
  std::memmove(directory->nodes + index, directory->nodes + index + 1, behind * sizeof directory->nodes[0]);
}

void DirectoryRekey(Bucketlist* list, const BucketlistNode* node, uint64_t oldKey) {
  if (list->directory == nullptr || node->minKey == oldKey) return;
  const uint32_t index = IndexOf(*list->directory, node, oldKey);
  if (index == kNone) return DirectoryFree(list);
  list->directory->keys[index] = node->minKey;
}

void DirectoryFree(Bucketlist* list) { KABFree(&list->directory); }

}  // namespace kab::ds
