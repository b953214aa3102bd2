// The key-context cache: a slab of key areas shared by several lists. A node that loses its slot is packed
//
//   tuples -> columns of differences -> byte planes -> LZ4 -> chained buffers of 10240 bytes
//
// and unpacked on its next use. Sorted keys, rising sequence numbers and addresses differ little from one tuple to the
// next, so most planes are zero.

#include <lz4.h>

#include <bit>
#include <cstring>

#include "kab/core.h"
#include "kab/indexes.h"
#include "plinth/panic.h"
#include "zoltcommon/ds/bucketlist_node.h"

struct BucketlistCompressedBuffer {
  BucketlistCompressedBuffer* next;
  uint32_t used;  // bytes
  uint8_t bytes[BUCKETLIST_COMPRESSED_BUFFER_SIZE - sizeof(BucketlistCompressedBuffer*) - sizeof(uint32_t)];
};
static_assert(sizeof(BucketlistCompressedBuffer) == BUCKETLIST_COMPRESSED_BUFFER_SIZE);

namespace kab::ds {
namespace {

constexpr int32_t kNoSlot = -1;
constexpr uint32_t kLeastSlots = 2;  // a split or a merge works on two nodes at once

// What one column of a packed node starts with.
struct ColumnHead {
  uint64_t base;    // of differences: the first value; else the smallest
  uint8_t planes;   // bytes kept of each value
  uint8_t differs;  // values are zigzag differences to their predecessor
  uint8_t unused[6];
};

constexpr uint32_t kPackedMax = BUCKETLIST_TUPLE_WORDS * (sizeof(ColumnHead) + 8 * kNodeEntries);
constexpr uint32_t kCompressedMax = LZ4_COMPRESSBOUND(kPackedMax);
constexpr uint32_t kScratchSize = kPackedMax + kCompressedMax;

uint64_t Zigzag(uint64_t difference) {
  return (difference << 1) ^ static_cast<uint64_t>(static_cast<int64_t>(difference) >> 63);
}

uint64_t Unzigzag(uint64_t value) { return (value >> 1) ^ (0 - (value & 1)); }

uint8_t BytesOf(uint64_t value) { return static_cast<uint8_t>((std::bit_width(value) + 7) / 8); }

void LoadColumn(const BucketlistNode& node, uint32_t word, uint64_t* values) {
  const BucketlistKeyArea* area = node.keyArea;
  for (uint32_t i = 0; i < node.sortedCount; ++i) {
    const uint32_t slot = node.sortedStart + i;
    values[i] = word == 0 ? area->keys[slot] : area->payloads[slot][word - 1];
  }
}

// Returns the bytes written to `out`.
uint32_t PackColumn(uint64_t* values, uint32_t count, uint8_t* out) {
  uint64_t smallest = values[0];
  uint64_t differences = 0;
  for (uint32_t i = 1; i < count; ++i) {
    if (values[i] < smallest) smallest = values[i];
    differences |= Zigzag(values[i] - values[i - 1]);
  }
  uint64_t offsets = 0;
  for (uint32_t i = 0; i < count; ++i) offsets |= values[i] - smallest;
  ColumnHead head{};
  head.differs = std::bit_width(differences) <= std::bit_width(offsets);
  head.base = head.differs != 0 ? values[0] : smallest;
  head.planes = BytesOf(head.differs != 0 ? differences : offsets);
  if (head.differs != 0) {
    for (uint32_t i = count - 1; i > 0; --i) values[i] = Zigzag(values[i] - values[i - 1]);
    values[0] = 0;
  } else {
    for (uint32_t i = 0; i < count; ++i) values[i] -= smallest;
  }
  std::memcpy(out, &head, sizeof head);
  uint8_t* plane = out + sizeof head;
  for (uint32_t p = 0; p < head.planes; ++p, plane += count) {
    for (uint32_t i = 0; i < count; ++i) plane[i] = static_cast<uint8_t>(values[i] >> (8 * p));
  }
  return static_cast<uint32_t>(plane - out);
}

// Returns the bytes read.
uint32_t UnpackColumn(const uint8_t* in, uint32_t count, uint64_t* values) {
  ColumnHead head;
  std::memcpy(&head, in, sizeof head);
  const uint8_t* plane = in + sizeof head;
  std::memset(values, 0, count * sizeof values[0]);
  for (uint32_t p = 0; p < head.planes; ++p, plane += count) {
    for (uint32_t i = 0; i < count; ++i) values[i] |= uint64_t{plane[i]} << (8 * p);
  }
  if (head.differs != 0) {
    uint64_t value = head.base;
    for (uint32_t i = 0; i < count; ++i) values[i] = value += Unzigzag(values[i]);
  } else {
    for (uint32_t i = 0; i < count; ++i) values[i] += head.base;
  }
  return static_cast<uint32_t>(plane - in);
}

void FreeBuffers(Bucketlist* list, BucketlistNode* node) {
  while (node->compressed != nullptr) {
    BucketlistCompressedBuffer* next = node->compressed->next;
    KABFree(&node->compressed);
    node->compressed = next;
    --list->stats.compressedBuffers;
  }
}

void Unchain(BucketlistCache* cache, int32_t slot) {
  const int32_t newer = cache->newer[slot];
  const int32_t older = cache->older[slot];
  (newer != kNoSlot ? cache->older[newer] : cache->newest) = older;
  (older != kNoSlot ? cache->newer[older] : cache->oldest) = newer;
}

void ChainNewest(BucketlistCache* cache, int32_t slot) {
  cache->newer[slot] = kNoSlot;
  cache->older[slot] = cache->newest;
  (cache->newest != kNoSlot ? cache->newer[cache->newest] : cache->oldest) = slot;
  cache->newest = slot;
}

// Packs a node that holds a slot into buffers; the slot and the node's key area stay. False without memory.
bool Compress(Bucketlist* list, BucketlistNode* node, uint8_t* scratch) {
  SortNode(node);
  RefreshFirst(node);
  uint64_t values[kNodeEntries];
  uint32_t packed = 0;
  if (node->sortedCount > 0) {
    for (uint32_t word = 0; word < list->tupleSize; ++word) {
      LoadColumn(*node, word, values);
      packed += PackColumn(values, node->sortedCount, scratch + packed);
    }
  }
  const char* source = reinterpret_cast<const char*>(scratch);
  uint8_t* compressed = scratch + kPackedMax;
  auto left = static_cast<uint32_t>(LZ4_compress_default(source, reinterpret_cast<char*>(compressed),
                                                         static_cast<int>(packed), static_cast<int>(kCompressedMax)));
  BucketlistCompressedBuffer** end = &node->compressed;
  do {
    *end = Bucketlist_AllocCompressedBuffer(list);
    if (*end == nullptr) {
      FreeBuffers(list, node);
      return false;
    }
    const uint32_t used = left < sizeof(*end)->bytes ? left : static_cast<uint32_t>(sizeof(*end)->bytes);
    std::memcpy((*end)->bytes, compressed, used);
    (*end)->used = used;
    compressed += used;
    left -= used;
    end = &(*end)->next;
  } while (left > 0);
  return true;
}

void Decompress(Bucketlist* list, BucketlistNode* node, uint8_t* scratch) {
  uint8_t* compressed = scratch + kPackedMax;
  uint32_t length = 0;
  for (const auto* buffer = node->compressed; buffer != nullptr; buffer = buffer->next) {
    std::memcpy(compressed + length, buffer->bytes, buffer->used);
    length += buffer->used;
  }
  const int packed = LZ4_decompress_safe(reinterpret_cast<const char*>(compressed), reinterpret_cast<char*>(scratch),
                                         static_cast<int>(length), static_cast<int>(kPackedMax));
  if (packed < 0) {
    plinth::Panic("Failed at %s:%d -- PLINTH_ASSERT(%s)", "zoltcommon/ds/bucketlist", __LINE__, "packed >= 0");
  }
  BucketlistKeyArea* area = node->keyArea;
  node->sortedStart = 0;
  uint64_t values[kNodeEntries];
  uint32_t at = 0;
  for (uint32_t word = 0; node->sortedCount > 0 && word < BUCKETLIST_TUPLE_WORDS; ++word) {
    if (word < list->tupleSize) {
      at += UnpackColumn(scratch + at, node->sortedCount, word == 0 ? area->keys : values);
      if (word == 0) continue;
    } else {
      std::memset(values, 0, node->sortedCount * sizeof values[0]);  // the slot's last owner may have been wider
    }
    for (uint32_t i = 0; i < node->sortedCount; ++i) area->payloads[i][word - 1] = values[i];
  }
}

// A slot for a node, with its key area as the last owner left it. Compresses the least recently used node without
// references when all are taken. False when that needs memory that is not there, or when every node is referenced.
bool TakeSlot(Bucketlist* list, BucketlistNode* node) {
  BucketlistCache* cache = list->cache;
  int32_t slot = cache->freeSlot;
  if (slot != kNoSlot) {
    cache->freeSlot = cache->older[slot];
    ++cache->used;
  } else {
    slot = cache->oldest;
    while (slot != kNoSlot && cache->owners[slot]->refCount != 0) slot = cache->newer[slot];
    if (slot == kNoSlot) return false;
    BucketlistNode* victim = cache->owners[slot];
    Bucketlist* owner = cache->ownerList[slot];
    if (!Compress(owner, victim, cache->scratch)) return false;
    victim->keyArea = nullptr;
    victim->cacheIndex = kNoSlot;
    --owner->stats.cachedNodes;
    Unchain(cache, slot);
  }
  cache->owners[slot] = node;
  cache->ownerList[slot] = list;
  ChainNewest(cache, slot);
  node->cacheIndex = slot;
  node->keyArea = cache->slab + slot;
  ++list->stats.cachedNodes;
  return true;
}

void GiveSlotBack(Bucketlist* list, BucketlistNode* node) {
  BucketlistCache* cache = list->cache;
  const int32_t slot = node->cacheIndex;
  Unchain(cache, slot);
  cache->owners[slot] = nullptr;
  cache->ownerList[slot] = nullptr;
  cache->older[slot] = cache->freeSlot;
  cache->freeSlot = slot;
  --cache->used;
  --list->stats.cachedNodes;
  node->cacheIndex = kNoSlot;
  node->keyArea = nullptr;
}

uint32_t Prepare(BucketlistCache* cache, uint32_t nodes, void* slab) {
  *cache = {};
  if (nodes < kLeastSlots || nodes > INT32_MAX) return KAB_INVALID_ARGUMENT;
  cache->ownsSlab = slab == nullptr;
  cache->slab =
      static_cast<BucketlistKeyArea*>(slab != nullptr ? slab : KABAlloc(uint64_t{nodes} * sizeof *cache->slab));
  cache->owners = static_cast<BucketlistNode**>(KABAlloc(uint64_t{nodes} * sizeof *cache->owners));
  cache->ownerList = static_cast<Bucketlist**>(KABAlloc(uint64_t{nodes} * sizeof *cache->ownerList));
  cache->newer = static_cast<int32_t*>(KABAlloc(uint64_t{nodes} * sizeof *cache->newer));
  cache->older = static_cast<int32_t*>(KABAlloc(uint64_t{nodes} * sizeof *cache->older));
  cache->scratch = static_cast<uint8_t*>(KABAlloc(kScratchSize));
  if (cache->slab == nullptr || cache->owners == nullptr || cache->ownerList == nullptr || cache->newer == nullptr ||
      cache->older == nullptr || cache->scratch == nullptr) {
    Bucketlist_CacheDestroy(cache);
    return KAB_INVALID_ARGUMENT;
  }
  cache->nodes = nodes;
  cache->newest = kNoSlot;
  cache->oldest = kNoSlot;
  for (uint32_t i = 0; i < nodes; ++i) cache->older[i] = static_cast<int32_t>(i + 1);
  cache->older[nodes - 1] = kNoSlot;
  return KAB_OK;
}

}  // namespace
}  // namespace kab::ds

using namespace kab::ds;

uint32_t Bucketlist_CacheInit(BucketlistCache* cache, uint32_t nodes) { return Prepare(cache, nodes, nullptr); }

uint32_t Bucketlist_CacheInitWithSlab(BucketlistCache* cache, uint32_t nodes, void* slab) {
  if (slab == nullptr) {
    *cache = {};
    return KAB_INVALID_ARGUMENT;
  }
  return Prepare(cache, nodes, slab);
}

void Bucketlist_CacheDestroy(BucketlistCache* cache) {
  if (cache->ownsSlab != 0) KABFree(&cache->slab);
  KABFree(&cache->owners);
  KABFree(&cache->ownerList);
  KABFree(&cache->newer);
  KABFree(&cache->older);
  KABFree(&cache->scratch);
  *cache = {};
}

uint32_t Bucketlist_CreateKeyContextFromCache(Bucketlist* list, BucketlistNode* node) {
  if (!TakeSlot(list, node)) return KAB_INVALID_ARGUMENT;
  std::memset(node->keyArea, 0, sizeof *node->keyArea);
  return KAB_OK;
}

uint32_t Bucketlist_RestoreKeyContextToCache(Bucketlist* list, BucketlistNode* node) {
  if (!TakeSlot(list, node)) return KAB_INVALID_ARGUMENT;
  Decompress(list, node, list->cache->scratch);
  FreeBuffers(list, node);
  return KAB_OK;
}

void Bucketlist_TouchCacheLine(BucketlistCache* cache, int32_t slot) {
  if (cache->newest == slot) return;
  Unchain(cache, slot);
  ChainNewest(cache, slot);
}

BucketlistCompressedBuffer* Bucketlist_AllocCompressedBuffer(Bucketlist* list) {
  auto* buffer = static_cast<BucketlistCompressedBuffer*>(KABAlloc(sizeof(BucketlistCompressedBuffer)));
  if (buffer != nullptr) ++list->stats.compressedBuffers;
  return buffer;
}

uint8_t Bucketlist_NodeCBufCount(const BucketlistNode* node) {
  uint8_t count = 0;
  for (const auto* buffer = node->compressed; buffer != nullptr; buffer = buffer->next) ++count;
  return count;
}

BucketlistNode* Bucketlist_AllocNode(Bucketlist* list) {
  auto* node = static_cast<BucketlistNode*>(KABAlloc(sizeof(BucketlistNode)));
  if (node == nullptr) return nullptr;
  node->cacheIndex = kNoSlot;
  ++list->stats.numNodes;
  return node;
}

void Bucketlist_FreeNode(Bucketlist* list, BucketlistNode* node) {
  if (node->cacheIndex != kNoSlot) GiveSlotBack(list, node);
  FreeBuffers(list, node);
  KABFree(&node->keyArea);
  KABFree(&node);
  --list->stats.numNodes;
}

uint32_t BucketlistGetNode(Bucketlist* list, BucketlistNode* node) {
  if (node->keyArea != nullptr) {
    if (node->cacheIndex != kNoSlot) Bucketlist_TouchCacheLine(list->cache, node->cacheIndex);
  } else if (node->compressed != nullptr) {
    const uint32_t st = Bucketlist_RestoreKeyContextToCache(list, node);
    if (st != KAB_OK) return st;
  } else {
    if (list->cache != nullptr) {
      const uint32_t st = Bucketlist_CreateKeyContextFromCache(list, node);
      if (st != KAB_OK) return st;
    } else {
      node->keyArea = static_cast<BucketlistKeyArea*>(KABAlloc(sizeof(BucketlistKeyArea)));
      if (node->keyArea == nullptr) return KAB_INVALID_ARGUMENT;
    }
    // A new node's only tuple waits in the header.
    if (node->sortedCount > 0) WriteSlot(node, node->sortedStart, node->firstTuple, list->tupleSize);
  }
  ++node->refCount;
  return KAB_OK;
}

void BucketlistPutNode(Bucketlist* list, BucketlistNode* node) {
  if (--node->refCount == 0 && node->freeOnRelease != 0) Bucketlist_FreeNode(list, node);
}
