#pragma once
// LBA tables for callers to whom memory that ran out must not look like a table without an entry.

#include "kab/indexes.h"

namespace kab::ds {

/// ZOLTLbaTable_Insert that returns 0 or 12, the first failure; the other extents are entered all the same.
uint32_t InsertExtents(ZOLTLbaTable* table, uint64_t start, uint64_t owner, const void* extents, uint64_t data,
                       ZOLTRangeDisplacedFn callback, uint64_t callbackArg);

/// ZOLTLbaTable_Find and ZOLTLbaTable_Next through `range`, null when there is none. 0 or 12.
uint32_t FindRange(ZOLTLbaTable* table, uint64_t offset, ZOLTLbaTableCursor* cursor, ZOLTLbaRange** range);
uint32_t NextRange(ZOLTLbaTable* table, ZOLTLbaTableCursor* cursor, ZOLTLbaRange** range);

}  // namespace kab::ds
