// The key-context cache: a slab of key areas shared by several lists. A node that loses its slot is packed
//
//   tuples -> columns of differences -> byte planes -> LZ4, if more than a buffer -> chained buffers of 10240 bytes
//
// and unpacked on its next use. Sorted keys, rising sequence numbers and addresses differ little from one tuple to the
// next, offsets are multiples of a sector or a block, and a word may hold another one again: most planes are not there.
// Scattered keys make a replay pack and unpack a node for every few of them, so the planes are made eight at a time.

#include <lz4.h>

#include <bit>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"  // the intrinsics' own don't-care operands
#endif
#endif

#include "kab/core.h"
#include "kab/indexes.h"
#include "plinth/panic.h"
#include "zoltcommon/ds/bucketlist_node.h"
#include "zoltcommon/ds/key_areas.h"

struct BucketlistCompressedBuffer {
  BucketlistCompressedBuffer* next;
  uint16_t used;   // bytes
  uint16_t plain;  // the planes as they are: they fit, and LZ4 would save nothing
  uint8_t bytes[BUCKETLIST_COMPRESSED_BUFFER_SIZE - sizeof(BucketlistCompressedBuffer*) - 2 * sizeof(uint16_t)];
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
  uint8_t shift;    // low bits that are 0 in each of them, and not kept
  uint8_t sameAs;   // 1 + the column that this one is, with `base` added; 0: none
  uint8_t unused[4];
};

constexpr uint32_t kPackedMax = BUCKETLIST_TUPLE_WORDS * (sizeof(ColumnHead) + 8 * kNodeEntries);
constexpr uint32_t kCompressedMax = LZ4_COMPRESSBOUND(kPackedMax);
constexpr uint32_t kColumnsAt = (kPackedMax + kCompressedMax + 63) / 64 * 64;
constexpr uint32_t kScratchSize = kColumnsAt + (BUCKETLIST_TUPLE_WORDS + 1) * 8 * kNodeEntries;

uint64_t Zigzag(uint64_t difference) {
  return (difference << 1) ^ static_cast<uint64_t>(static_cast<int64_t>(difference) >> 63);
}

uint64_t Unzigzag(uint64_t value) { return (value >> 1) ^ (0 - (value & 1)); }

uint8_t BytesOf(uint64_t value) { return static_cast<uint8_t>((std::bit_width(value) + 7) / 8); }

// What a column's bytes depend on.
struct ColumnSpan {
  uint64_t smallest;
  uint64_t largest;
  uint64_t apart;  // all bits of the differences to the first value
  uint64_t steps;  // all bits of the zigzag differences to the predecessor
};

// Also leaves the zigzag differences in `steps`.
[[gnu::always_inline]] inline ColumnSpan SpanHere(const uint64_t* values, uint32_t count, uint64_t* steps) {
  const uint64_t first = values[0];
  ColumnSpan span{first, first, 0, 0};
  steps[0] = 0;
  for (uint32_t i = 1; i < count; ++i) {
    const uint64_t value = values[i];
    span.smallest = value < span.smallest ? value : span.smallest;
    span.largest = value > span.largest ? value : span.largest;
    span.apart |= value - first;
    steps[i] = Zigzag(value - values[i - 1]);
    span.steps |= steps[i];
  }
  return span;
}

#if defined(__x86_64__)
__attribute__((target("avx2"))) ColumnSpan SpanAvx2(const uint64_t* values, uint32_t count, uint64_t* steps) {
  return SpanHere(values, count, steps);
}
#endif

ColumnSpan SpanOf(const uint64_t* values, uint32_t count, uint64_t* steps) {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2")) return SpanAvx2(values, count, steps);
#endif
  return SpanHere(values, count, steps);
}

// Writes `planes` bytes of each value, from bit `shift` on, plane by plane; reads them back. The whole eights first, as
// matrices of eight by eight bytes that change rows for columns: how many values that were is returned.
#if defined(__x86_64__)
struct Eight {
  __m128i pairs[4];

  Eight Turned() const {
    const __m128i v04 = _mm_unpacklo_epi8(pairs[0], pairs[2]);
    const __m128i v15 = _mm_unpackhi_epi8(pairs[0], pairs[2]);
    const __m128i v26 = _mm_unpacklo_epi8(pairs[1], pairs[3]);
    const __m128i v37 = _mm_unpackhi_epi8(pairs[1], pairs[3]);
    const __m128i evenLow = _mm_unpacklo_epi8(v04, v26);
    const __m128i evenHigh = _mm_unpackhi_epi8(v04, v26);
    const __m128i oddLow = _mm_unpacklo_epi8(v15, v37);
    const __m128i oddHigh = _mm_unpackhi_epi8(v15, v37);
    return {{_mm_unpacklo_epi8(evenLow, oddLow), _mm_unpackhi_epi8(evenLow, oddLow),
             _mm_unpacklo_epi8(evenHigh, oddHigh), _mm_unpackhi_epi8(evenHigh, oddHigh)}};
  }
};

uint32_t PutEights(const uint64_t* values, uint32_t count, uint32_t shift, uint32_t planes, uint8_t* out) {
  const __m128i bits = _mm_cvtsi32_si128(static_cast<int>(shift));
  uint32_t i = 0;
  for (; i + 8 <= count; i += 8) {
    Eight eight;
    for (uint32_t k = 0; k < 4; ++k) {
      eight.pairs[k] = _mm_srl_epi64(_mm_loadu_si128(reinterpret_cast<const __m128i*>(values + i + 2 * k)), bits);
    }
    eight = eight.Turned();
    for (uint32_t p = 0; p < planes; ++p) {
      const __m128i pair = eight.pairs[p / 2];
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out + p * count + i), p % 2 == 0 ? pair : _mm_srli_si128(pair, 8));
    }
  }
  return i;
}

uint32_t TakeEights(const uint8_t* in, uint32_t count, uint32_t shift, uint32_t planes, uint64_t* values) {
  const __m128i bits = _mm_cvtsi32_si128(static_cast<int>(shift));
  uint32_t i = 0;
  for (; i + 8 <= count; i += 8) {
    const auto plane = [&](uint32_t p) {
      return p < planes ? _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in + p * count + i)) : _mm_setzero_si128();
    };
    Eight eight;
    for (uint32_t k = 0; k < 4; ++k) eight.pairs[k] = _mm_unpacklo_epi64(plane(2 * k), plane(2 * k + 1));
    eight = eight.Turned();
    for (uint32_t k = 0; k < 4; ++k) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(values + i + 2 * k), _mm_sll_epi64(eight.pairs[k], bits));
    }
  }
  return i;
}
#else
uint32_t PutEights(const uint64_t*, uint32_t, uint32_t, uint32_t, uint8_t*) { return 0; }
uint32_t TakeEights(const uint8_t*, uint32_t, uint32_t, uint32_t, uint64_t*) { return 0; }
#endif

void PutPlanes(const uint64_t* values, uint32_t count, uint32_t shift, uint32_t planes, uint8_t* out) {
  const uint32_t done = PutEights(values, count, shift, planes, out);
  for (uint32_t p = 0; p < planes; ++p, out += count) {
    for (uint32_t i = done; i < count; ++i) out[i] = static_cast<uint8_t>(values[i] >> (shift + 8 * p));
  }
}

void TakePlanes(const uint8_t* in, uint32_t count, uint32_t shift, uint32_t planes, uint64_t* values) {
  const uint32_t done = TakeEights(in, count, shift, planes, values);
  std::memset(values + done, 0, (count - done) * sizeof values[0]);
  for (uint32_t p = 0; p < planes; ++p, in += count) {
    for (uint32_t i = done; i < count; ++i) values[i] |= uint64_t{in[i]} << (shift + 8 * p);
  }
}

// Returns the bytes written to `out`; `work` has room for the column.
uint32_t PackColumn(const uint64_t* values, uint32_t count, uint64_t* work, uint8_t* out) {
  const ColumnSpan span = SpanOf(values, count, work);
  // Differences to any value have the same low bits that are 0. Zigzag moves a difference up by a bit, which the shift
  // takes back.
  const auto width = [](uint64_t top, uint64_t bits) {
    return bits != 0 ? static_cast<int>(std::bit_width(top)) - std::countr_zero(bits) : 0;
  };
  ColumnHead head{};
  head.differs = width(span.steps, span.steps) <= width(span.largest - span.smallest, span.apart);
  head.base = head.differs != 0 ? values[0] : span.smallest;
  const uint64_t bits = head.differs != 0 ? span.steps : span.apart;
  const uint64_t top = head.differs != 0 ? span.steps : span.largest - span.smallest;
  if (bits != 0) head.shift = static_cast<uint8_t>(std::countr_zero(bits));
  head.planes = BytesOf(top >> head.shift);
  if (head.differs == 0) {
    for (uint32_t i = 0; i < count; ++i) work[i] = values[i] - span.smallest;
  }
  std::memcpy(out, &head, sizeof head);
  PutPlanes(work, count, head.shift, head.planes, out + sizeof head);
  return static_cast<uint32_t>(sizeof head + head.planes * count);
}

// Returns the bytes read.
uint32_t UnpackColumn(const uint8_t* in, uint32_t count, uint64_t* values) {
  ColumnHead head;
  std::memcpy(&head, in, sizeof head);
  TakePlanes(in + sizeof head, count, head.shift, head.planes, values);
  if (head.differs != 0) {
    uint64_t value = head.base;
    for (uint32_t i = 0; i < count; ++i) values[i] = value += Unzigzag(values[i]);
  } else {
    for (uint32_t i = 0; i < count; ++i) values[i] += head.base;
  }
  return static_cast<uint32_t>(sizeof head + head.planes * count);
}

// Columns side by side. Too large for a stack that may be a small one: part of the cache's scratch.
struct Columns {
  uint64_t values[BUCKETLIST_TUPLE_WORDS][kNodeEntries];
  uint64_t work[kNodeEntries];
};
static_assert(kColumnsAt + sizeof(Columns) == kScratchSize);

// All columns in one pass: the key area of a node that loses its slot is not in the processor's nearest cache any more.
void LoadColumns(const BucketlistNode& node, uint32_t words, Columns* columns) {
  const BucketlistKeyArea* area = node.keyArea;
  std::memcpy(columns->values[0], area->keys + node.sortedStart, node.sortedCount * sizeof area->keys[0]);
  if (words == 1) return;
  for (uint32_t i = 0; i < node.sortedCount; ++i) {
    for (uint32_t word = 1; word < BUCKETLIST_TUPLE_WORDS; ++word) {
      columns->values[word][i] = area->payloads[node.sortedStart + i][word - 1];
    }
  }
}

// 1 + an earlier column from which this one differs by a constant; 0: there is none.
uint8_t SameAs(const Columns& columns, uint32_t word, uint32_t count) {
  const uint64_t* values = columns.values[word];
  for (uint32_t other = 0; other < word; ++other) {
    const uint64_t* others = columns.values[other];
    const uint64_t apart = values[0] - others[0];
    uint32_t i = 1;
    while (i < count && values[i] - others[i] == apart) ++i;
    if (i == count) return static_cast<uint8_t>(other + 1);
  }
  return 0;
}

uint32_t PackNode(const Bucketlist& list, const BucketlistNode& node, Columns* columns, uint8_t* out) {
  const uint32_t count = node.sortedCount;
  uint32_t packed = 0;
  if (count > 0) LoadColumns(node, list.tupleSize, columns);
  for (uint32_t word = 0; count > 0 && word < list.tupleSize; ++word) {
    const uint64_t* values = columns->values[word];
    ColumnHead head{};
    head.sameAs = SameAs(*columns, word, count);
    if (head.sameAs == 0) {
      packed += PackColumn(values, count, columns->work, out + packed);
      continue;
    }
    head.base = values[0] - columns->values[head.sameAs - 1][0];
    std::memcpy(out + packed, &head, sizeof head);
    packed += static_cast<uint32_t>(sizeof head);
  }
  return packed;
}

void UnpackNode(const Bucketlist& list, const BucketlistNode& node, Columns* columns, const uint8_t* in) {
  const uint32_t count = node.sortedCount;
  if (count == 0) return;
  for (uint32_t word = 0; word < BUCKETLIST_TUPLE_WORDS; ++word) {
    uint64_t* values = columns->values[word];
    if (word >= list.tupleSize) {
      std::memset(values, 0, count * sizeof values[0]);  // the slot's last owner may have been wider
      continue;
    }
    ColumnHead head;
    std::memcpy(&head, in, sizeof head);
    if (head.sameAs == 0) {
      in += UnpackColumn(in, count, values);
      continue;
    }
    const uint64_t* others = columns->values[head.sameAs - 1];
    for (uint32_t i = 0; i < count; ++i) values[i] = others[i] + head.base;
    in += sizeof head;
  }
  BucketlistKeyArea* area = node.keyArea;
  std::memcpy(area->keys, columns->values[0], count * sizeof area->keys[0]);
  for (uint32_t i = 0; i < count; ++i) {
    for (uint32_t word = 1; word < BUCKETLIST_TUPLE_WORDS; ++word) {
      area->payloads[i][word - 1] = columns->values[word][i];
    }
  }
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
  auto* columns = reinterpret_cast<Columns*>(scratch + kColumnsAt);
  const uint8_t* source = scratch;
  uint32_t left = PackNode(*list, *node, columns, scratch);
  const bool plain = left <= sizeof(BucketlistCompressedBuffer::bytes);
  if (!plain) {
    source = scratch + kPackedMax;
    left = static_cast<uint32_t>(LZ4_compress_default(reinterpret_cast<const char*>(scratch),
                                                      reinterpret_cast<char*>(scratch + kPackedMax),
                                                      static_cast<int>(left), static_cast<int>(kCompressedMax)));
  }
  BucketlistCompressedBuffer** end = &node->compressed;
  do {
    *end = Bucketlist_AllocCompressedBuffer(list);
    if (*end == nullptr) {
      FreeBuffers(list, node);
      return false;
    }
    const uint32_t used = left < sizeof(*end)->bytes ? left : static_cast<uint32_t>(sizeof(*end)->bytes);
    std::memcpy((*end)->bytes, source, used);
    (*end)->used = static_cast<uint16_t>(used);
    (*end)->plain = plain;
    source += used;
    left -= used;
    end = &(*end)->next;
  } while (left > 0);
  return true;
}

void Decompress(Bucketlist* list, BucketlistNode* node, uint8_t* scratch) {
  auto* columns = reinterpret_cast<Columns*>(scratch + kColumnsAt);
  node->sortedStart = 0;
  if (node->compressed->plain != 0) return UnpackNode(*list, *node, columns, node->compressed->bytes);
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
  UnpackNode(*list, *node, columns, scratch);
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
  if (node->keyArea != nullptr) PutKeyArea(list, node->keyArea);
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
      node->keyArea = TakeKeyArea(list);
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
