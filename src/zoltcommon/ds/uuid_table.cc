// Intrusive hash table keyed by UUIDs: one allocation of the header and its bucket heads.

#include "core/frame/memory.h"
#include "kab/checksum.h"
#include "kab/indexes.h"

namespace kab::ds {
namespace {

ARVOUUIDTableLink* Bucket(const ARVOUUIDTable* table, uint32_t index) {
  return const_cast<ARVOUUIDTableLink*>(&table->buckets[index]);
}

// Stops when `stop` accepts a callback's result. The next link is read first, so that the callback may remove and
// free its record, and the bucket count again after each bucket, so that it may even empty the table.
template <class Stop>
uint32_t Walk(ARVOUUIDTable* table, ARVOUUIDTableIterateFn fn, void* arg, Stop stop) {
  if (table == nullptr) return 0;
  for (uint32_t i = 0; i < table->bucketCount; ++i) {
    ARVOUUIDTableLink* head = Bucket(table, i);
    for (ARVOUUIDTableLink* link = head->prev; link != head;) {
      ARVOUUIDTableLink* older = link->prev;
      if (stop(fn(link, arg))) return 1;
      link = older;
    }
  }
  return 0;
}

}  // namespace
}  // namespace kab::ds

using namespace kab::ds;

ARVOUUIDTable* ARVOUUIDTable_Init(void* owner, uint32_t bucketCount, ARVOUUIDTableMatchFn matchFn) {
  auto* table =
      static_cast<ARVOUUIDTable*>(KABAlloc(sizeof(ARVOUUIDTable) + uint64_t{bucketCount} * sizeof(ARVOUUIDTableLink)));
  if (table == nullptr) return nullptr;
  table->owner = owner;
  table->bucketCount = bucketCount;
  table->matchFn = matchFn;
  for (uint32_t i = 0; i < bucketCount; ++i) table->buckets[i] = {Bucket(table, i), Bucket(table, i)};
  return table;
}

void ARVOUUIDTable_Free(ARVOUUIDTable* table) { KABFree(&table); }

uint32_t ARVOUUIDTable_GetBucketIndex(uint64_t keyLow, uint64_t keyHigh, uint32_t bucketCount) {
  if (bucketCount == 0) return 0;
  const uint64_t key[2] = {keyLow, keyHigh};  // hosts are little-endian: the bytes lie as they are hashed
  uint64_t hash = 0;
  plinth_HashBytes(key, sizeof key, &hash);
  return static_cast<uint32_t>(hash % bucketCount);
}

void ARVOUUIDTable_Insert(ARVOUUIDTable* table, uint64_t keyLow, uint64_t keyHigh, ARVOUUIDTableLink* link) {
  if (table->bucketCount == 0) return;
  ARVOUUIDTableLink* head = Bucket(table, ARVOUUIDTable_GetBucketIndex(keyLow, keyHigh, table->bucketCount));
  link->next = head;
  link->prev = head->prev;
  head->prev->next = link;
  head->prev = link;
}

ARVOUUIDTableLink* ARVOUUIDTable_Remove(ARVOUUIDTable* /*table*/, ARVOUUIDTableLink* link) {
  ARVOUUIDTableLink* before = link->prev;
  link->next->prev = before;
  before->next = link->next;
  *link = {};
  return before;
}

ARVOUUIDTableLink* ARVOUUIDTable_FindExt(const ARVOUUIDTable* table, uint64_t keyLow, uint64_t keyHigh, uint64_t extra1,
                                         uint64_t extra2) {
  if (table->bucketCount == 0) return nullptr;
  ARVOUUIDTableLink* head = Bucket(table, ARVOUUIDTable_GetBucketIndex(keyLow, keyHigh, table->bucketCount));
  for (ARVOUUIDTableLink* link = head->prev; link != head; link = link->prev) {
    if (static_cast<uint8_t>(table->matchFn(link, keyLow, keyHigh, extra1, extra2)) != 0) return link;
  }
  return nullptr;
}

ARVOUUIDTableLink* ARVOUUIDTable_Find(const ARVOUUIDTable* table, uint64_t keyLow, uint64_t keyHigh) {
  return ARVOUUIDTable_FindExt(table, keyLow, keyHigh, 0, 0);
}

void ARVOUUIDTable_Iterate(ARVOUUIDTable* table, ARVOUUIDTableIterateFn fn, void* arg) {
  Walk(table, fn, arg, [](uint32_t) { return false; });
}

uint32_t ARVOUUIDTable_BreakingIterate(ARVOUUIDTable* table, ARVOUUIDTableIterateFn fn, void* arg) {
  return Walk(table, fn, arg, [](uint32_t result) { return static_cast<uint8_t>(result) == 1; });
}

uint32_t ARVOUUIDTable_IsEmpty(const ARVOUUIDTable* table) {
  for (uint32_t i = 0; i < table->bucketCount; ++i) {
    if (Bucket(table, i)->next != Bucket(table, i)) return 0;
  }
  return 1;
}
