// A keyed table over one Bucketlist, with a cursor that carries its tuple.

#include <cstring>

#include "kab/indexes.h"

namespace kab::ds {
namespace {

constexpr uint32_t kNoEntry = 2;
constexpr uint32_t kDataWord = 3;

void CopyTuple(const ZOLTIndexMap* map, ZOLTIndexMapCursor* cursor) {
  Bucketlist_IteratorRead(&map->list, cursor->tuple, &cursor->iterator);
}

}  // namespace
}  // namespace kab::ds

using namespace kab::ds;

void ZOLTIndexMap_Init(ZOLTIndexMap* map, BucketlistCache* cache, uint32_t tupleSize) {
  Bucketlist_Init(&map->list, cache, tupleSize);
}

void ZOLTIndexMap_Reinit(ZOLTIndexMap* map) {
  Bucketlist_Destroy(&map->list);
  Bucketlist_Init(&map->list, map->list.cache, map->list.tupleSize);
}

void ZOLTIndexMap_Destroy(ZOLTIndexMap* map) { Bucketlist_Destroy(&map->list); }

uint32_t ZOLTIndexMap_Insert(ZOLTIndexMap* map, const uint64_t* tuple) {
  uint64_t copy[BUCKETLIST_TUPLE_WORDS];
  std::memcpy(copy, tuple, sizeof copy);
  return Bucketlist_Insert(&map->list, copy);
}

uint32_t ZOLTIndexMap_Find(ZOLTIndexMap* map, uint64_t key, ZOLTIndexMapCursor* cursor) {
  const uint32_t st = Bucketlist_LowerBound(&map->list, &cursor->iterator, key);
  if (st != KAB_OK) return st;
  if (cursor->iterator.key != key) return kNoEntry;
  CopyTuple(map, cursor);
  return KAB_OK;
}

uint32_t ZOLTIndexMap_First(ZOLTIndexMap* map, ZOLTIndexMapCursor* cursor) {
  const uint32_t st = Bucketlist_LowerBound(&map->list, &cursor->iterator, 0);
  if (st == KAB_OK) CopyTuple(map, cursor);
  return st;
}

uint32_t ZOLTIndexMap_Next(ZOLTIndexMap* map, ZOLTIndexMapCursor* cursor) {
  if (cursor->iterator.node == nullptr) return kNoEntry;
  const uint32_t st = Bucketlist_Successor(&map->list, &cursor->iterator);
  if (st == KAB_OK) CopyTuple(map, cursor);
  return st;
}

uint32_t ZOLTIndexMap_UpdateData(ZOLTIndexMap* map, ZOLTIndexMapCursor* cursor, uint64_t data) {
  CopyTuple(map, cursor);
  cursor->tuple[kDataWord] = data;
  return Bucketlist_IteratorWrite(&map->list, &cursor->iterator, cursor->tuple);
}

uint32_t ZOLTIndexMap_Remove(ZOLTIndexMap* map, ZOLTIndexMapCursor* cursor) {
  return Bucketlist_DeleteInvalidateIter(&map->list, &cursor->iterator);
}

uint32_t ZOLTIndexMap_Print(ZOLTIndexMap* map) {
  ZOLTIndexMapCursor cursor;
  uint32_t st = ZOLTIndexMap_First(map, &cursor);
  while (st == KAB_OK) st = ZOLTIndexMap_Next(map, &cursor);
  return st;
}

uint32_t ZOLTIndexMap_Compare(ZOLTIndexMap* a, ZOLTIndexMap* b) {
  ZOLTIndexMapCursor inA;
  ZOLTIndexMapCursor inB;
  uint32_t stA = ZOLTIndexMap_First(a, &inA);
  uint32_t stB = ZOLTIndexMap_First(b, &inB);
  while (stA == KAB_OK && stB == KAB_OK) {
    if (std::memcmp(inA.tuple, inB.tuple, sizeof inA.tuple) != 0) return 0;
    stA = ZOLTIndexMap_Next(a, &inA);
    stB = ZOLTIndexMap_Next(b, &inB);
  }
  return stA != KAB_OK && stB != KAB_OK;
}

void ZOLTIndexMap_GetStats(const ZOLTIndexMap* map, BucketlistStats* out) { *out = map->list.stats; }
