#ifndef KAB_INDEXES_H
#define KAB_INDEXES_H

/**
 * @file
 * The in-memory indexes behind log replay: LSN table, Bucketlist with its key-context cache, range map and LBA
 * table, index map, UUID table. They know no disk and write no message.
 *
 * Results are 0, 2 (no such entry, end reached) or 12 (out of memory, the index unchanged) unless an operation says
 * otherwise. A broken invariant of a Bucketlist ends the process with a line on stderr.
 *
 * Threads: an index, and every list that shares a cache with it, is used by one thread at a time.
 */

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- LSN table ---------------------------------------------------------------------------------------------
 * An ordered intrusive list of the caller's records, ascending by (primarySeq, secondarySeq). Entries with the pair
 * (0, 0) are placeholders that may stand anywhere. Nothing allocates, nothing fails; an entry given as a place must
 * be in the table (not checked).
 */

/** Makes `table` empty; sharedCount is null, the caller sets it afterwards. */
KAB_API void ZOLTLsnTable_Init(ZOLTLsnTable *table);

/** Links `entry` at the tail, whatever its keys. */
KAB_API void ZOLTLsnTable_InsertLast(ZOLTLsnTable *table, ZOLTLsnTableEntry *entry);

/** Links `entry` directly after `after`. */
KAB_API void ZOLTLsnTable_InsertAfter(ZOLTLsnTable *table, ZOLTLsnTableEntry *entry, ZOLTLsnTableEntry *after);

/** Links `entry` directly before `before`. */
KAB_API void ZOLTLsnTable_InsertBefore(ZOLTLsnTable *table, ZOLTLsnTableEntry *entry, ZOLTLsnTableEntry *before);

/** Sorted insertion scanning from the front: directly before the first strictly greater entry. Equal keys keep
 *  their order of arrival. */
KAB_API void ZOLTLsnTable_Insert(ZOLTLsnTable *table, ZOLTLsnTableEntry *entry);

/** Sorted insertion scanning from the back: directly after an equal entry, else before the first greater entry that
 *  is no placeholder; a new smallest entry goes to the very front. */
KAB_API void ZOLTLsnTable_InsertReverse(ZOLTLsnTable *table, ZOLTLsnTableEntry *entry);

/** Unlinks `entry`; its links are null afterwards. */
KAB_API void ZOLTLsnTable_Remove(ZOLTLsnTable *table, ZOLTLsnTableEntry *entry);

/** The first entry, placeholders included; null when empty. */
KAB_API ZOLTLsnTableEntry *ZOLTLsnTable_First(const ZOLTLsnTable *table);

/** The last entry, placeholders included; null when empty. */
KAB_API ZOLTLsnTableEntry *ZOLTLsnTable_LastWithZero(const ZOLTLsnTable *table);

/** The first entry that is no placeholder; the last entry when all are; null when empty. */
KAB_API ZOLTLsnTableEntry *ZOLTLsnTable_NonZeroFirst(const ZOLTLsnTable *table);

/** The last entry that is no placeholder; the first entry when all are; null when empty. */
KAB_API ZOLTLsnTableEntry *ZOLTLsnTable_Last(const ZOLTLsnTable *table);

/** The entry after `entry`, or null. */
KAB_API ZOLTLsnTableEntry *ZOLTLsnTable_Next(const ZOLTLsnTable *table, const ZOLTLsnTableEntry *entry);

/** The entry before `entry`, or null. */
KAB_API ZOLTLsnTableEntry *ZOLTLsnTable_Prev(const ZOLTLsnTable *table, const ZOLTLsnTableEntry *entry);

/** The first entry with both keys, or null. */
KAB_API ZOLTLsnTableEntry *ZOLTLsnTable_Find(const ZOLTLsnTable *table, uint64_t primarySeq, uint64_t secondarySeq);

/** The first entry in list order whose secondarySeq is at least `value`, or null. */
KAB_API ZOLTLsnTableEntry *ZOLTLsnTable_FindNear(const ZOLTLsnTable *table, uint64_t value);

/** Walks the table and writes nothing. */
KAB_API void ZOLTLsnTable_Print(const ZOLTLsnTable *table);

/* ---- Bucketlist --------------------------------------------------------------------------------------------
 * An ordered map of tuples of 1 to 5 words whose first word is the key: a skip list of nodes of up to 1024 tuples.
 * Keys are expected to be unique. The head is the caller's record.
 */

/**
 * Makes `list` empty.
 *
 * @param list       the caller's record; what it held before is forgotten.
 * @param cache      key areas shared with other lists, borrowed, must outlive the list; null keeps every key area
 *                   in memory.
 * @param tupleSize  words a tuple, 1 to 5.
 */
KAB_API void Bucketlist_Init(Bucketlist *list, BucketlistCache *cache, uint32_t tupleSize);

/** Frees every node; the list is empty afterwards and may be used again. */
KAB_API void Bucketlist_Destroy(Bucketlist *list);

/** Inserts a copy of tupleSize words. Iterators of the list stay usable. Returns 0 or 12. */
KAB_API uint32_t Bucketlist_Insert(Bucketlist *list, const uint64_t *tuple);

/** Positions `iter` at the smallest key that is at least `key`. Returns 0; 2 or 12 with a null iterator node. */
KAB_API uint32_t Bucketlist_LowerBound(Bucketlist *list, BucketlistIterator *iter, uint64_t key);

/** Positions `iter` at the smallest key. Returns 0; 2 or 12 with a null iterator node. */
KAB_API uint32_t Bucketlist_Begin(Bucketlist *list, BucketlistIterator *iter);

/** Positions `iter` at the largest key. Returns 0; 2 or 12 with a null iterator node. */
KAB_API uint32_t Bucketlist_End(Bucketlist *list, BucketlistIterator *iter);

/** Moves to the next larger key. Returns 0; 2 at the end with a null iterator node; 12 with `iter` unchanged. */
KAB_API uint32_t Bucketlist_Successor(Bucketlist *list, BucketlistIterator *iter);

/** Moves to the next smaller key. Returns 0; 2 at the beginning with a null iterator node; 12 with `iter` unchanged. */
KAB_API uint32_t Bucketlist_Predecessor(Bucketlist *list, BucketlistIterator *iter);

/** Copies the iterator's own copy of its entry to `tuple`, always 5 words. Touches no node. Returns 0. */
KAB_API uint32_t Bucketlist_IteratorRead(const Bucketlist *list, uint64_t *tuple, const BucketlistIterator *iter);

/**
 * Overwrites the current entry, key included, and the iterator's copy.
 *
 * @param list   the iterator's list.
 * @param iter   on an entry.
 * @param tuple  tupleSize words; a changed key must keep the list's order.
 * @return 0; 2 when the entry is no longer there; 12.
 */
KAB_API uint32_t Bucketlist_IteratorWrite(Bucketlist *list, BucketlistIterator *iter, const uint64_t *tuple);

/** Removes the current entry; the iterator's node is null afterwards. Returns 0; 2 when the entry is no longer there;
 *  12. */
KAB_API uint32_t Bucketlist_DeleteInvalidateIter(Bucketlist *list, BucketlistIterator *iter);

/** Removes the current entry and moves `iter` to its predecessor; node null when there is none. Returns 0; 2 when
 *  the entry is no longer there; 12. */
KAB_API uint32_t Bucketlist_DeleteTryMaintainIter(Bucketlist *list, BucketlistIterator *iter);

/** Checks every invariant, sorting the nodes on the way; ends the process on the first that is broken. A node of a
 *  list with a cache that cannot be brought back for want of memory ends the check early. */
KAB_API void Bucketlist_Validate(Bucketlist *list);

/** The compressed buffers chained to the node, modulo 256. */
KAB_API uint8_t Bucketlist_NodeCBufCount(const BucketlistNode *node);

/** 1 for the sizes of a Bucketlist's allocations: 296, 10240 and 40960 bytes. */
KAB_API uint32_t BucketlistAllocation(uint64_t size);

/** The smallest key of a node, by which the skip list is searched. */
KAB_API uint64_t BucketlistGetMin(const BucketlistNode *node);

/** A zeroed node that holds no cache slot, counted in the list's statistics but not linked; null when memory is
 *  exhausted. */
KAB_API BucketlistNode *Bucketlist_AllocNode(Bucketlist *list);

/** Frees a node that is not linked (any more), with its key area, cache slot and compressed buffers. */
KAB_API void Bucketlist_FreeNode(Bucketlist *list, BucketlistNode *node);

/** A zeroed compressed buffer, counted in the list's statistics; null when memory is exhausted. */
KAB_API BucketlistCompressedBuffer *Bucketlist_AllocCompressedBuffer(Bucketlist *list);

/** Makes the node's key area present and takes a reference. Returns 0 or 12 (no reference taken). */
KAB_API uint32_t BucketlistGetNode(Bucketlist *list, BucketlistNode *node);

/** Gives a reference back; the last one of a node marked freeOnRelease frees it. */
KAB_API void BucketlistPutNode(Bucketlist *list, BucketlistNode *node);

/* ---- Key-context cache -------------------------------------------------------------------------------------
 * At most `nodes` key areas of 40960 bytes stay in memory for all lists of a cache; the others are compressed, least
 * recently used first, and brought back when their node is used. Nodes with references stay.
 */

/**
 * Prepares a cache with memory of its own for `nodes` key areas.
 *
 * @param cache  the caller's record.
 * @param nodes  at least 2.
 * @return 0, or 12 for fewer nodes or when memory is exhausted: the cache is zeroed then.
 */
KAB_API uint32_t Bucketlist_CacheInit(BucketlistCache *cache, uint32_t nodes);

/** The same over the caller's memory: `nodes` * 40960 bytes, aligned to 8, which must outlive the cache. */
KAB_API uint32_t Bucketlist_CacheInitWithSlab(BucketlistCache *cache, uint32_t nodes, void *slab);

/** Releases a cache after its lists were destroyed. A zeroed or destroyed cache is fine. */
KAB_API void Bucketlist_CacheDestroy(BucketlistCache *cache);

/** Gives a node without key area and without compressed buffers a zeroed slot. Returns 0 or 12. */
KAB_API uint32_t Bucketlist_CreateKeyContextFromCache(Bucketlist *list, BucketlistNode *node);

/** Brings a compressed node back into a slot and frees its buffers. Returns 0 or 12. */
KAB_API uint32_t Bucketlist_RestoreKeyContextToCache(Bucketlist *list, BucketlistNode *node);

/** Makes a slot that has an owner the most recently used one. */
KAB_API void Bucketlist_TouchCacheLine(BucketlistCache *cache, int32_t slot);

/* ---- Range map and LBA table -------------------------------------------------------------------------------
 * Ranges of bytes that never overlap, each mapped to an address, in a Bucketlist of ZOLTRangeTuple.
 */

/**
 * Maps [`start`, `end`) or, when `owner` is all ones, unmaps it. A callback must not use the list.
 *
 * @param list         of 5-word tuples.
 * @param start,end    bytes; nothing is done, and 0 returned, unless start < end.
 * @param owner        kept with the range; all ones unmaps.
 * @param address      where the first byte lives, in bytes.
 * @param data         kept with the range.
 * @param callback     told of every piece displaced; may be null.
 * @param callbackArg  the callback's last argument.
 * @return 0, or 12: ranges never overlap then, but pieces displaced before the failure stay displaced, and where the
 *         new range split an old one or cut its upper part off, what lay before `start` may be lost.
 */
KAB_API uint32_t Rangemap_Insert(Bucketlist *list, uint64_t start, uint64_t end, uint64_t owner, uint64_t address,
                                 uint64_t data, ZOLTRangeDisplacedFn callback, uint64_t callbackArg);

/** Allocates the table's list; 12 when memory is exhausted (the list is null then). tupleSize is 5. */
KAB_API uint32_t ZOLTLbaTable_Init(ZOLTLbaTable *table, BucketlistCache *cache, uint32_t tupleSize);

/** Destroys the list and sets it to null; null is fine. */
KAB_API void ZOLTLbaTable_Destroy(ZOLTLbaTable *table);

/**
 * Enters extents at consecutive offsets from `start`. Extents that follow one another and name the same sector as the
 * first of them become one range, of at most 1020 MiB; the first one that differs ends all folding.
 *
 * @param table        initialised.
 * @param start        byte offset.
 * @param length       not consulted.
 * @param owner        kept with each range.
 * @param extents      packed, little-endian: u16 count, then count times u64 start sector and u16 sectors of 512 bytes;
 *                     any alignment. An extent whose address or end leaves 64 bits is dropped, as is one that finds no
 *                     memory.
 * @param data         kept with each range.
 * @param callback     told of every piece displaced; may be null.
 * @param callbackArg  the callback's last argument.
 */
KAB_API void ZOLTLbaTable_Insert(ZOLTLbaTable *table, uint64_t start, uint64_t length, uint64_t owner,
                                 const void *extents, uint64_t data, ZOLTRangeDisplacedFn callback,
                                 uint64_t callbackArg);

/** The first range that ends above `offset` (it may begin above it, too), in `cursor`; null when there is none. */
KAB_API ZOLTLbaRange *ZOLTLbaTable_Find(ZOLTLbaTable *table, uint64_t offset, ZOLTLbaTableCursor *cursor);

/** ZOLTLbaTable_Find for offset 0. */
KAB_API ZOLTLbaRange *ZOLTLbaTable_First(ZOLTLbaTable *table, ZOLTLbaTableCursor *cursor);

/** The range after the cursor's, in `cursor`; null at the end. */
KAB_API ZOLTLbaRange *ZOLTLbaTable_Next(ZOLTLbaTable *table, ZOLTLbaTableCursor *cursor);

/** Replaces the current range's data word. */
KAB_API uint32_t ZOLTLbaTable_UpdateData(ZOLTLbaTable *table, uint64_t data, ZOLTLbaTableCursor *cursor);

/** Unmaps [`start`, `end`) and the whole of a range that contains `end` or begins there. */
KAB_API uint32_t ZOLTLbaTable_RemoveRange(ZOLTLbaTable *table, uint64_t start, uint64_t end,
                                          ZOLTRangeDisplacedFn callback, uint64_t callbackArg);

/** Unmaps exactly [`start`, `end`). */
KAB_API uint32_t ZOLTLbaTable_RemoveRangeExact(ZOLTLbaTable *table, uint64_t start, uint64_t end,
                                               ZOLTRangeDisplacedFn callback, uint64_t callbackArg);

/** Copies the list's statistics. */
KAB_API void ZOLTLbaTable_GetStats(const ZOLTLbaTable *table, BucketlistStats *out);

/** Walks all ranges and writes nothing. */
KAB_API void ZOLTLbaTable_Print(ZOLTLbaTable *table);

/** 1 when both tables hold the same ranges, else 0. */
KAB_API uint32_t ZOLTLbaTable_Compare(ZOLTLbaTable *a, ZOLTLbaTable *b);

/* ---- Index map ---------------------------------------------------------------------------------------------
 * Tuples found by a unique key. Callers always hand over and receive 5 words; those beyond the map's tuple size are
 * not stored and read as zero.
 */

/** Bucketlist_Init on the map's list. */
KAB_API void ZOLTIndexMap_Init(ZOLTIndexMap *map, BucketlistCache *cache, uint32_t tupleSize);

/** Empties the map; cache and tuple size stay. */
KAB_API void ZOLTIndexMap_Reinit(ZOLTIndexMap *map);

/** Frees all entries. */
KAB_API void ZOLTIndexMap_Destroy(ZOLTIndexMap *map);

/** Inserts a copy of 5 words. Returns 0 or 12. */
KAB_API uint32_t ZOLTIndexMap_Insert(ZOLTIndexMap *map, const uint64_t *tuple);

/** Finds exactly `key`. On 2 the cursor's tuple is left alone and its iterator is on the next larger key, if any. */
KAB_API uint32_t ZOLTIndexMap_Find(ZOLTIndexMap *map, uint64_t key, ZOLTIndexMapCursor *cursor);

/** The smallest key. */
KAB_API uint32_t ZOLTIndexMap_First(ZOLTIndexMap *map, ZOLTIndexMapCursor *cursor);

/** The next larger key; 2 at the end and for a cursor that is on no entry. */
KAB_API uint32_t ZOLTIndexMap_Next(ZOLTIndexMap *map, ZOLTIndexMapCursor *cursor);

/** Replaces word 3 of the current entry. */
KAB_API uint32_t ZOLTIndexMap_UpdateData(ZOLTIndexMap *map, ZOLTIndexMapCursor *cursor, uint64_t data);

/** Removes the current entry; the cursor is on no entry afterwards. */
KAB_API uint32_t ZOLTIndexMap_Remove(ZOLTIndexMap *map, ZOLTIndexMapCursor *cursor);

/** Walks every entry and writes nothing. Returns the code that ended the walk: 2 for a complete one. */
KAB_API uint32_t ZOLTIndexMap_Print(ZOLTIndexMap *map);

/** 1 when both maps hold the same tuples, else 0. */
KAB_API uint32_t ZOLTIndexMap_Compare(ZOLTIndexMap *a, ZOLTIndexMap *b);

/** Copies the list's statistics. */
KAB_API void ZOLTIndexMap_GetStats(const ZOLTIndexMap *map, BucketlistStats *out);

/* ---- UUID table --------------------------------------------------------------------------------------------
 * Intrusive hash table over the callers' records, keyed by the two 64-bit halves of a UUID. It never compares keys
 * itself and allocates once.
 */

/**
 * Makes a table.
 *
 * @param owner        kept, not used.
 * @param bucketCount  a table of 0 buckets holds nothing.
 * @param matchFn      compares keys for the look-ups.
 * @return the table, to be released with ARVOUUIDTable_Free; null when memory is exhausted.
 */
KAB_API ARVOUUIDTable *ARVOUUIDTable_Init(void *owner, uint32_t bucketCount, ARVOUUIDTableMatchFn matchFn);

/** Releases the table, null is fine; its records are not touched. */
KAB_API void ARVOUUIDTable_Free(ARVOUUIDTable *table);

/** The key's bucket: plinth_HashBytes of its 16 bytes modulo `bucketCount`; 0 for no buckets. */
KAB_API uint32_t ARVOUUIDTable_GetBucketIndex(uint64_t keyLow, uint64_t keyHigh, uint32_t bucketCount);

/** Appends a record's link to the key's bucket; does nothing in a table of 0 buckets. */
KAB_API void ARVOUUIDTable_Insert(ARVOUUIDTable *table, uint64_t keyLow, uint64_t keyHigh, ARVOUUIDTableLink *link);

/** Unlinks a record; both its fields are null afterwards. Returns the former prev. */
KAB_API ARVOUUIDTableLink *ARVOUUIDTable_Remove(ARVOUUIDTable *table, ARVOUUIDTableLink *link);

/** The newest record that the match function accepts, or null. */
KAB_API ARVOUUIDTableLink *ARVOUUIDTable_FindExt(const ARVOUUIDTable *table, uint64_t keyLow, uint64_t keyHigh,
                                                 uint64_t extra1, uint64_t extra2);

/** ARVOUUIDTable_FindExt with both extra values 0. */
KAB_API ARVOUUIDTableLink *ARVOUUIDTable_Find(const ARVOUUIDTable *table, uint64_t keyLow, uint64_t keyHigh);

/** Calls `fn` on every record, bucket by bucket, newest first; `fn` may remove and free the record it is given. */
KAB_API void ARVOUUIDTable_Iterate(ARVOUUIDTable *table, ARVOUUIDTableIterateFn fn, void *arg);

/** The same walk, stopped when the low byte of `fn`'s result is exactly 1. Returns 1 when stopped, else 0. */
KAB_API uint32_t ARVOUUIDTable_BreakingIterate(ARVOUUIDTable *table, ARVOUUIDTableIterateFn fn, void *arg);

/** 1 when the table holds no record. */
KAB_API uint32_t ARVOUUIDTable_IsEmpty(const ARVOUUIDTable *table);

#ifdef __cplusplus
}
#endif

#endif
