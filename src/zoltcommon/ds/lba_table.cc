// The range map of one address space: extents of the log go in, lookups say where a byte lives.

#include "zoltcommon/ds/lba_table.h"

#include <algorithm>
#include <boost/endian/buffers.hpp>
#include <cstring>

#include "core/frame/memory.h"

namespace kab::ds {
namespace {

constexpr uint32_t kNoEntry = 2;  // of a Bucketlist
constexpr uint64_t kUnmapped = ~uint64_t{0};
constexpr uint64_t kSectorSize = 512;
constexpr uint64_t kMaxRun = 0x3fc00000;  // bytes

// An extent list, little-endian:
//    0       2                10        12
//    | count | start sector   | sectors | start sector ...
struct PackedExtent {
  boost::endian::little_uint64_buf_t startSector;
  boost::endian::little_uint16_buf_t sectors;
};
static_assert(sizeof(PackedExtent) == 10 && alignof(PackedExtent) == 1);
using PackedCount = boost::endian::little_uint16_buf_t;
static_assert(sizeof(PackedCount) == 2 && alignof(PackedCount) == 1);

ZOLTLbaRange* Unpack(ZOLTLbaTableCursor* cursor) {
  const BucketlistIterator& at = cursor->iterator;
  cursor->range = {.start = at.key - at.payload[0],
                   .length = at.payload[0],
                   .owner = at.payload[1],
                   .address = at.payload[2],
                   .data = at.payload[3]};
  return &cursor->range;
}

uint32_t Found(uint32_t st, ZOLTLbaTableCursor* cursor, ZOLTLbaRange** range) {
  if (st == KAB_OK) *range = Unpack(cursor);
  return st == kNoEntry ? uint32_t{KAB_OK} : st;
}

}  // namespace

uint32_t InsertExtents(ZOLTLbaTable* table, uint64_t start, uint64_t owner, const void* extents, uint64_t data,
                       ZOLTRangeDisplacedFn callback, uint64_t callbackArg) {
  const auto* bytes = static_cast<const uint8_t*>(extents);
  const uint32_t count = reinterpret_cast<const PackedCount*>(bytes)->value();
  const auto* extent = reinterpret_cast<const PackedExtent*>(bytes + sizeof(PackedCount));
  uint64_t offset = start;
  uint32_t failure = KAB_OK;
  bool merging = true;
  for (uint32_t i = 0; i < count;) {
    const uint64_t startSector = extent[i].startSector.value();
    uint64_t run = extent[i].sectors.value() * kSectorSize;
    uint64_t address;
    const bool hasAddress = !__builtin_mul_overflow(startSector, kSectorSize, &address);
    const uint64_t longest = std::min({kMaxRun, ~offset, hasAddress ? ~address : kMaxRun});
    for (++i; merging && i < count; ++i) {
      // Compared with the extent that opened the run, on purpose: extents that name one place fold, contiguous ones
      // do not.
      if (extent[i].startSector.value() != startSector) {
        merging = false;
        break;
      }
      const uint64_t more = extent[i].sectors.value() * kSectorSize;
      if (run + more > longest) break;
      run += more;
    }
    if (run > ~offset) break;  // and so would every extent after it
    if (hasAddress && run <= ~address) {
      const uint32_t st =
          Rangemap_Insert(table->list, offset, offset + run, owner, address, data, callback, callbackArg);
      if (failure == KAB_OK) failure = st;
    }
    offset += run;
  }
  return failure;
}

uint32_t FindRange(ZOLTLbaTable* table, uint64_t offset, ZOLTLbaTableCursor* cursor, ZOLTLbaRange** range) {
  *range = nullptr;
  if (offset == ~uint64_t{0}) {  // nothing ends above the last offset
    cursor->iterator.node = nullptr;
    return KAB_OK;
  }
  return Found(Bucketlist_LowerBound(table->list, &cursor->iterator, offset + 1), cursor, range);
}

uint32_t NextRange(ZOLTLbaTable* table, ZOLTLbaTableCursor* cursor, ZOLTLbaRange** range) {
  *range = nullptr;
  if (cursor->iterator.node == nullptr) return KAB_OK;
  return Found(Bucketlist_Successor(table->list, &cursor->iterator), cursor, range);
}

}  // namespace kab::ds

using namespace kab::ds;

uint32_t ZOLTLbaTable_Init(ZOLTLbaTable* table, BucketlistCache* cache, uint32_t tupleSize) {
  table->list = kab::AllocRecord<Bucketlist>().release();
  if (table->list == nullptr) return KAB_INVALID_ARGUMENT;
  Bucketlist_Init(table->list, cache, tupleSize);
  return KAB_OK;
}

void ZOLTLbaTable_Destroy(ZOLTLbaTable* table) {
  if (table->list == nullptr) return;
  Bucketlist_Destroy(table->list);
  KABFree(&table->list);
}

void ZOLTLbaTable_Insert(ZOLTLbaTable* table, uint64_t start, uint64_t /*length*/, uint64_t owner, const void* extents,
                         uint64_t data, ZOLTRangeDisplacedFn callback, uint64_t callbackArg) {
  static_cast<void>(InsertExtents(table, start, owner, extents, data, callback, callbackArg));
}

ZOLTLbaRange* ZOLTLbaTable_Find(ZOLTLbaTable* table, uint64_t offset, ZOLTLbaTableCursor* cursor) {
  ZOLTLbaRange* range = nullptr;
  static_cast<void>(FindRange(table, offset, cursor, &range));
  return range;
}

ZOLTLbaRange* ZOLTLbaTable_First(ZOLTLbaTable* table, ZOLTLbaTableCursor* cursor) {
  return ZOLTLbaTable_Find(table, 0, cursor);
}

ZOLTLbaRange* ZOLTLbaTable_Next(ZOLTLbaTable* table, ZOLTLbaTableCursor* cursor) {
  ZOLTLbaRange* range = nullptr;
  static_cast<void>(NextRange(table, cursor, &range));
  return range;
}

uint32_t ZOLTLbaTable_UpdateData(ZOLTLbaTable* table, uint64_t data, ZOLTLbaTableCursor* cursor) {
  uint64_t tuple[BUCKETLIST_TUPLE_WORDS];
  Bucketlist_IteratorRead(table->list, tuple, &cursor->iterator);
  tuple[4] = data;
  const uint32_t st = Bucketlist_IteratorWrite(table->list, &cursor->iterator, tuple);
  if (st == KAB_OK) cursor->range.data = data;
  return st;
}

uint32_t ZOLTLbaTable_RemoveRange(ZOLTLbaTable* table, uint64_t start, uint64_t end, ZOLTRangeDisplacedFn callback,
                                  uint64_t callbackArg) {
  if (start >= end) return KAB_OK;
  ZOLTLbaTableCursor cursor;
  ZOLTLbaRange* range = nullptr;
  const uint32_t st = FindRange(table, end, &cursor, &range);
  if (st != KAB_OK) return st;
  if (range != nullptr && range->start <= end) end = range->start + range->length;
  return ZOLTLbaTable_RemoveRangeExact(table, start, end, callback, callbackArg);
}

uint32_t ZOLTLbaTable_RemoveRangeExact(ZOLTLbaTable* table, uint64_t start, uint64_t end, ZOLTRangeDisplacedFn callback,
                                       uint64_t callbackArg) {
  return Rangemap_Insert(table->list, start, end, kUnmapped, 0, 0, callback, callbackArg);
}

void ZOLTLbaTable_GetStats(const ZOLTLbaTable* table, BucketlistStats* out) { *out = table->list->stats; }

void ZOLTLbaTable_Print(ZOLTLbaTable* table) {
  ZOLTLbaTableCursor cursor;
  const ZOLTLbaRange* range = ZOLTLbaTable_First(table, &cursor);
  while (range != nullptr) range = ZOLTLbaTable_Next(table, &cursor);
}

uint32_t ZOLTLbaTable_Compare(ZOLTLbaTable* a, ZOLTLbaTable* b) {
  ZOLTLbaTableCursor cursorA;
  ZOLTLbaTableCursor cursorB;
  const ZOLTLbaRange* inA = ZOLTLbaTable_First(a, &cursorA);
  const ZOLTLbaRange* inB = ZOLTLbaTable_First(b, &cursorB);
  while (inA != nullptr && inB != nullptr) {
    if (std::memcmp(inA, inB, sizeof *inA) != 0) return 0;
    inA = ZOLTLbaTable_Next(a, &cursorA);
    inB = ZOLTLbaTable_Next(b, &cursorB);
  }
  return inA == nullptr && inB == nullptr;
}
