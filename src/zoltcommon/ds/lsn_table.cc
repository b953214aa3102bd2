// The intrusive list in which log replay keeps entries in sequence order. The head's two links and an entry's two
// links have one layout, so the head is the sentinel of a ring:
//
//   head.first -> entry -> entry -> head        head.last -> entry -> entry -> head

#include <cstddef>

#include "kab/indexes.h"

namespace kab::ds {
namespace {

// Heads and entries are reached through this one type.
struct __attribute__((may_alias)) Link {
  Link* prev;
  Link* next;
};
static_assert(sizeof(Link) == sizeof(ZOLTLsnLink) && offsetof(Link, next) == offsetof(ZOLTLsnLink, next));
static_assert(offsetof(ZOLTLsnTable, last) == offsetof(ZOLTLsnLink, prev));
static_assert(offsetof(ZOLTLsnTable, first) == offsetof(ZOLTLsnLink, next));
static_assert(offsetof(ZOLTLsnTableEntry, next) - offsetof(ZOLTLsnTableEntry, prev) == offsetof(ZOLTLsnLink, next));

Link* HeadOf(const ZOLTLsnTable* table) { return reinterpret_cast<Link*>(const_cast<ZOLTLsnTable*>(table)); }

Link* LinkOf(const ZOLTLsnTableEntry* entry) {
  return reinterpret_cast<Link*>(&const_cast<ZOLTLsnTableEntry*>(entry)->prev);
}

// Null for the head.
ZOLTLsnTableEntry* EntryOf(const ZOLTLsnTable* table, Link* link) {
  if (link == HeadOf(table)) return nullptr;
  return reinterpret_cast<ZOLTLsnTableEntry*>(reinterpret_cast<std::byte*>(link) - offsetof(ZOLTLsnTableEntry, prev));
}

bool IsZero(const ZOLTLsnTableEntry& entry) { return entry.primarySeq == 0 && entry.secondarySeq == 0; }

bool Less(const ZOLTLsnTableEntry& a, const ZOLTLsnTableEntry& b) {
  return a.primarySeq != b.primarySeq ? a.primarySeq < b.primarySeq : a.secondarySeq < b.secondarySeq;
}

void LinkBetween(ZOLTLsnTable* table, Link* before, Link* entry, Link* after) {
  if (++table->count > table->maxCount) table->maxCount = table->count;
  if (table->sharedCount != nullptr) ++*table->sharedCount;
  entry->prev = before;
  entry->next = after;
  before->next = entry;
  after->prev = entry;
}

}  // namespace
}  // namespace kab::ds

using namespace kab::ds;

void ZOLTLsnTable_Init(ZOLTLsnTable* table) {
  *table = {};
  HeadOf(table)->prev = HeadOf(table);
  HeadOf(table)->next = HeadOf(table);
}

void ZOLTLsnTable_InsertLast(ZOLTLsnTable* table, ZOLTLsnTableEntry* entry) {
  LinkBetween(table, HeadOf(table)->prev, LinkOf(entry), HeadOf(table));
  ++table->appendInserts;
}

void ZOLTLsnTable_InsertAfter(ZOLTLsnTable* table, ZOLTLsnTableEntry* entry, ZOLTLsnTableEntry* after) {
  LinkBetween(table, LinkOf(after), LinkOf(entry), LinkOf(after)->next);
  ++table->orderedInserts;
}

void ZOLTLsnTable_InsertBefore(ZOLTLsnTable* table, ZOLTLsnTableEntry* entry, ZOLTLsnTableEntry* before) {
  LinkBetween(table, LinkOf(before)->prev, LinkOf(entry), LinkOf(before));
  ++table->orderedInserts;
}

void ZOLTLsnTable_Insert(ZOLTLsnTable* table, ZOLTLsnTableEntry* entry) {
  const ZOLTLsnTableEntry* tail = ZOLTLsnTable_Last(table);
  if (tail == nullptr || !Less(*entry, *tail)) return ZOLTLsnTable_InsertLast(table, entry);
  for (auto* x = ZOLTLsnTable_First(table); x != nullptr; x = ZOLTLsnTable_Next(table, x)) {
    if (Less(*entry, *x)) return ZOLTLsnTable_InsertBefore(table, entry, x);
  }
}

void ZOLTLsnTable_InsertReverse(ZOLTLsnTable* table, ZOLTLsnTableEntry* entry) {
  ZOLTLsnTableEntry* tail = ZOLTLsnTable_Last(table);
  if (tail == nullptr || Less(*tail, *entry)) return ZOLTLsnTable_InsertLast(table, entry);
  if (!Less(*entry, *tail)) return ZOLTLsnTable_InsertAfter(table, entry, tail);
  ZOLTLsnTableEntry* x = ZOLTLsnTable_LastWithZero(table);
  for (; x != nullptr; x = ZOLTLsnTable_Prev(table, x)) {
    if (IsZero(*x)) continue;
    if (Less(*x, *entry)) break;
    if (!Less(*entry, *x)) return ZOLTLsnTable_InsertAfter(table, entry, x);
  }
  if (x == nullptr) {  // the new smallest entry, before any placeholder at the front
    LinkBetween(table, HeadOf(table), LinkOf(entry), HeadOf(table)->next);
    ++table->orderedInserts;
    return;
  }
  // Placeholders behind the smaller entry stay before the new one; `tail` is greater and ends the walk.
  for (x = ZOLTLsnTable_Next(table, x); x != nullptr && IsZero(*x);) x = ZOLTLsnTable_Next(table, x);
  if (x != nullptr) ZOLTLsnTable_InsertBefore(table, entry, x);
}

void ZOLTLsnTable_Remove(ZOLTLsnTable* table, ZOLTLsnTableEntry* entry) {
  Link* link = LinkOf(entry);
  Link* before = link->prev;
  Link* after = link->next;
  before->next = after;
  after->prev = before;
  link->prev = nullptr;
  link->next = nullptr;
  --table->count;
  if (table->sharedCount != nullptr) --*table->sharedCount;
}

ZOLTLsnTableEntry* ZOLTLsnTable_First(const ZOLTLsnTable* table) { return EntryOf(table, HeadOf(table)->next); }

ZOLTLsnTableEntry* ZOLTLsnTable_LastWithZero(const ZOLTLsnTable* table) { return EntryOf(table, HeadOf(table)->prev); }

ZOLTLsnTableEntry* ZOLTLsnTable_NonZeroFirst(const ZOLTLsnTable* table) {
  ZOLTLsnTableEntry* entry = ZOLTLsnTable_First(table);
  while (entry != nullptr && IsZero(*entry)) {
    ZOLTLsnTableEntry* next = ZOLTLsnTable_Next(table, entry);
    if (next == nullptr) break;
    entry = next;
  }
  return entry;
}

ZOLTLsnTableEntry* ZOLTLsnTable_Last(const ZOLTLsnTable* table) {
  ZOLTLsnTableEntry* entry = ZOLTLsnTable_LastWithZero(table);
  while (entry != nullptr && IsZero(*entry)) {
    ZOLTLsnTableEntry* prev = ZOLTLsnTable_Prev(table, entry);
    if (prev == nullptr) break;  // placeholders only: the one examined last
    entry = prev;
  }
  return entry;
}

ZOLTLsnTableEntry* ZOLTLsnTable_Next(const ZOLTLsnTable* table, const ZOLTLsnTableEntry* entry) {
  return EntryOf(table, LinkOf(entry)->next);
}

ZOLTLsnTableEntry* ZOLTLsnTable_Prev(const ZOLTLsnTable* table, const ZOLTLsnTableEntry* entry) {
  return EntryOf(table, LinkOf(entry)->prev);
}

ZOLTLsnTableEntry* ZOLTLsnTable_Find(const ZOLTLsnTable* table, uint64_t primarySeq, uint64_t secondarySeq) {
  auto* entry = ZOLTLsnTable_First(table);
  while (entry != nullptr && (entry->primarySeq != primarySeq || entry->secondarySeq != secondarySeq)) {
    entry = ZOLTLsnTable_Next(table, entry);
  }
  return entry;
}

ZOLTLsnTableEntry* ZOLTLsnTable_FindNear(const ZOLTLsnTable* table, uint64_t value) {
  auto* entry = ZOLTLsnTable_First(table);
  while (entry != nullptr && entry->secondarySeq < value) entry = ZOLTLsnTable_Next(table, entry);
  return entry;
}

void ZOLTLsnTable_Print(const ZOLTLsnTable* table) {
  for (auto* entry = ZOLTLsnTable_First(table); entry != nullptr;) entry = ZOLTLsnTable_Next(table, entry);
}
