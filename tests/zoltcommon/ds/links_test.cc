// The two intrusive tables: LSN table and UUID table.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

#include "kab/checksum.h"
#include "kab/indexes.h"

namespace {

using testing::ElementsAre;
using Key = std::pair<uint64_t, uint64_t>;

class LsnTable {
 public:
  LsnTable() { ZOLTLsnTable_Init(&table); }
  ZOLTLsnTableEntry* Make(Key key) {
    entries.push_back({key.first, key.second, nullptr, nullptr});
    return &entries.back();
  }
  void Append(std::initializer_list<Key> keys) {
    for (const Key& key : keys) ZOLTLsnTable_InsertLast(&table, Make(key));
  }
  std::vector<const ZOLTLsnTableEntry*> Entries() const {
    std::vector<const ZOLTLsnTableEntry*> all;
    for (auto* e = ZOLTLsnTable_First(&table); e != nullptr; e = ZOLTLsnTable_Next(&table, e)) all.push_back(e);
    auto* last = ZOLTLsnTable_LastWithZero(&table);
    for (size_t i = all.size(); i > 0; --i, last = ZOLTLsnTable_Prev(&table, last)) EXPECT_EQ(all[i - 1], last);
    EXPECT_EQ(last, nullptr);
    EXPECT_EQ(all.size(), table.count);
    return all;
  }
  size_t PlaceOf(const ZOLTLsnTableEntry* entry) const {
    const auto all = Entries();
    return static_cast<size_t>(std::find(all.begin(), all.end(), entry) - all.begin());
  }
  ZOLTLsnTable table;
  std::deque<ZOLTLsnTableEntry> entries;
};

struct PlaceCase {
  std::vector<Key> there;
  Key fresh;
  size_t forward;  // where ZOLTLsnTable_Insert puts it
  size_t reverse;
};

TEST(LsnTable, SortedInsertionsPlaceAroundPlaceholders) {
  const PlaceCase kPlaces[] = {
      {{}, {3, 3}, 0, 0},
      {{{0, 0}, {0, 0}}, {0, 0}, 2, 1},
      {{{0, 0}, {0, 0}}, {4, 0}, 2, 2},
      {{{5, 0}, {0, 0}, {7, 0}}, {5, 0}, 2, 1},
      {{{0, 0}, {7, 0}}, {3, 0}, 1, 0},
      {{{0, 0}, {7, 0}}, {0, 0}, 1, 0},
      {{{5, 0}, {0, 0}}, {5, 0}, 2, 1},
      {{{5, 0}, {0, 0}}, {5, 1}, 2, 2},
      {{{5, 0}, {0, 0}, {7, 0}}, {6, 0}, 2, 2},
      {{{5, 1}, {5, 3}, {6, 0}}, {5, 2}, 1, 1},
      {{{5, 1}, {5, 3}, {6, 0}}, {5, 3}, 2, 2},
  };
  for (const PlaceCase& c : kPlaces) {
    for (const bool forward : {true, false}) {
      LsnTable lsn;
      for (const Key& key : c.there) lsn.Append({key});
      auto* fresh = lsn.Make(c.fresh);
      (forward ? ZOLTLsnTable_Insert : ZOLTLsnTable_InsertReverse)(&lsn.table, fresh);
      EXPECT_EQ(lsn.PlaceOf(fresh), forward ? c.forward : c.reverse) << forward << " " << c.fresh.first;
    }
  }
}

TEST(LsnTable, KeepsCountsAndFindsItsEnds) {
  LsnTable lsn;
  uint64_t shared = 100;
  lsn.table.sharedCount = &shared;
  EXPECT_EQ(ZOLTLsnTable_First(&lsn.table), nullptr);
  EXPECT_EQ(ZOLTLsnTable_LastWithZero(&lsn.table), nullptr);
  EXPECT_EQ(ZOLTLsnTable_NonZeroFirst(&lsn.table), nullptr);
  EXPECT_EQ(ZOLTLsnTable_Last(&lsn.table), nullptr);
  EXPECT_EQ(ZOLTLsnTable_Find(&lsn.table, 0, 0), nullptr);
  EXPECT_EQ(ZOLTLsnTable_FindNear(&lsn.table, 0), nullptr);
  lsn.Append({{0, 0}, {0, 0}});
  EXPECT_EQ(ZOLTLsnTable_Last(&lsn.table), &lsn.entries[0]);
  EXPECT_EQ(ZOLTLsnTable_NonZeroFirst(&lsn.table), &lsn.entries[1]);
  lsn.Append({{9, 5}, {9, 4}, {0, 0}});
  EXPECT_EQ(ZOLTLsnTable_Last(&lsn.table), &lsn.entries[3]);
  EXPECT_EQ(ZOLTLsnTable_NonZeroFirst(&lsn.table), &lsn.entries[2]);
  EXPECT_EQ(ZOLTLsnTable_FindNear(&lsn.table, 3), &lsn.entries[2]);  // the first in the list, not the nearest
  EXPECT_EQ(ZOLTLsnTable_Find(&lsn.table, 9, 4), &lsn.entries[3]);
  ZOLTLsnTable_InsertBefore(&lsn.table, lsn.Make({1, 1}), &lsn.entries[0]);
  ZOLTLsnTable_InsertAfter(&lsn.table, lsn.Make({2, 2}), &lsn.entries[4]);
  EXPECT_EQ(lsn.PlaceOf(&lsn.entries[5]), 0U);
  EXPECT_EQ(lsn.PlaceOf(&lsn.entries[6]), 6U);
  ZOLTLsnTable_Remove(&lsn.table, &lsn.entries[2]);
  EXPECT_EQ(lsn.entries[2].prev, nullptr);
  EXPECT_EQ(lsn.entries[2].next, nullptr);
  EXPECT_EQ(lsn.table.count, 6U);
  EXPECT_EQ(lsn.table.maxCount, 7U);
  EXPECT_EQ(lsn.table.appendInserts, 5U);
  EXPECT_EQ(lsn.table.orderedInserts, 2U);
  EXPECT_EQ(shared, 106U);
  ZOLTLsnTable_Print(&lsn.table);
}

TEST(LsnTable, SortsWhatComesInAnyOrder) {
  for (const bool forward : {true, false}) {
    LsnTable lsn;
    std::mt19937_64 random(4);
    for (int i = 0; i < 400; ++i) {
      auto* entry = lsn.Make({1 + random() % 20, random() % 5});
      (forward ? ZOLTLsnTable_Insert : ZOLTLsnTable_InsertReverse)(&lsn.table, entry);
    }
    std::vector<std::pair<Key, size_t>> found;  // twins keep their order of arrival
    for (const auto* entry : lsn.Entries()) {
      size_t arrival = 0;
      while (&lsn.entries[arrival] != entry) ++arrival;
      found.push_back({{entry->primarySeq, entry->secondarySeq}, arrival});
    }
    EXPECT_EQ(found.size(), 400U);
    EXPECT_TRUE(std::is_sorted(found.begin(), found.end()));
  }
}

struct Record {
  uint64_t low, high;
  int number;
  ARVOUUIDTableLink link;
};

Record* RecordOf(const ARVOUUIDTableLink* link) {
  return reinterpret_cast<Record*>(reinterpret_cast<uintptr_t>(link) - offsetof(Record, link));
}

uint32_t Match(const ARVOUUIDTableLink* link, uint64_t low, uint64_t high, uint64_t extra1, uint64_t extra2) {
  const Record* record = RecordOf(link);
  // 0x100 has a low byte of 0: no match.
  if (record->low != low || record->high != high) return 0x100;
  return extra1 == 0 || record->number == static_cast<int>(extra1 + extra2) ? 1 : 0;
}

struct Visit {
  ARVOUUIDTable* table;
  std::vector<int> numbers;
  uint32_t result;
};

uint32_t Visitor(ARVOUUIDTableLink* link, void* arg) {
  auto* visit = static_cast<Visit*>(arg);
  visit->numbers.push_back(RecordOf(link)->number);
  if (visit->table != nullptr) {
    ARVOUUIDTable_Remove(visit->table, link);
    delete RecordOf(link);
  }
  return visit->result;
}

TEST(UuidTable, FindsTheNewestAndWalksBackwards) {
  ARVOUUIDTable* table = ARVOUUIDTable_Init(nullptr, 7, Match);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(ARVOUUIDTable_IsEmpty(table), 1U);
  std::deque<Record> records;
  for (int i = 0; i < 40; ++i) {
    records.push_back({static_cast<uint64_t>(i % 20), 9, i, {}});
    ARVOUUIDTable_Insert(table, records.back().low, 9, &records.back().link);
  }
  for (uint64_t low = 0; low < 20; ++low) {
    EXPECT_EQ(ARVOUUIDTable_Find(table, low, 9), &records[low + 20].link);
    EXPECT_EQ(ARVOUUIDTable_FindExt(table, low, 9, 0, 5), &records[low + 20].link);
    EXPECT_EQ(ARVOUUIDTable_Find(table, low, 8), nullptr);
  }
  EXPECT_EQ(ARVOUUIDTable_FindExt(table, 3, 9, 1, 2), &records[3].link);

  std::vector<int> expected;
  for (uint32_t bucket = 0; bucket < 7; ++bucket) {
    for (auto record = records.rbegin(); record != records.rend(); ++record) {
      if (ARVOUUIDTable_GetBucketIndex(record->low, 9, 7) == bucket) expected.push_back(record->number);
    }
  }
  Visit visit{nullptr, {}, 1};
  ARVOUUIDTable_Iterate(table, Visitor, &visit);
  EXPECT_EQ(visit.numbers, expected);
  const struct {
    uint32_t result, stopped;
    size_t visited;
  } kResults[] = {{1, 1, 1}, {0x101, 1, 1}, {2, 0, 40}, {0, 0, 40}, {0x100, 0, 40}};
  for (const auto& c : kResults) {
    visit = {nullptr, {}, c.result};
    EXPECT_EQ(ARVOUUIDTable_BreakingIterate(table, Visitor, &visit), c.stopped);
    EXPECT_EQ(visit.numbers.size(), c.visited);
  }
  const ARVOUUIDTableLink* before = records[30].link.prev;
  EXPECT_EQ(ARVOUUIDTable_Remove(table, &records[30].link), before);
  EXPECT_EQ(records[30].link.next, nullptr);
  EXPECT_EQ(records[30].link.prev, nullptr);
  EXPECT_EQ(ARVOUUIDTable_Find(table, 10, 9), &records[10].link);
  EXPECT_EQ(ARVOUUIDTable_IsEmpty(table), 0U);
  ARVOUUIDTable_Free(table);
}

TEST(UuidTable, CallbacksMayFreeTheirRecord) {
  ARVOUUIDTable* table = ARVOUUIDTable_Init(nullptr, 2, Match);
  ASSERT_NE(table, nullptr);
  for (int i = 0; i < 30; ++i) {
    auto* record = new Record{static_cast<uint64_t>(i), 0, i, {}};
    ARVOUUIDTable_Insert(table, record->low, 0, &record->link);
  }
  Visit visit{table, {}, 0};
  ARVOUUIDTable_Iterate(table, Visitor, &visit);
  EXPECT_EQ(visit.numbers.size(), 30U);
  EXPECT_EQ(ARVOUUIDTable_IsEmpty(table), 1U);
  ARVOUUIDTable_Free(table);
}

TEST(UuidTable, WithoutBucketsHoldsNothing) {
  ARVOUUIDTable* table = ARVOUUIDTable_Init(nullptr, 0, Match);
  ASSERT_NE(table, nullptr);
  Record record{1, 2, 3, {}};
  ARVOUUIDTable_Insert(table, 1, 2, &record.link);
  EXPECT_EQ(record.link.next, nullptr);
  EXPECT_EQ(ARVOUUIDTable_Find(table, 1, 2), nullptr);
  EXPECT_EQ(ARVOUUIDTable_IsEmpty(table), 1U);
  EXPECT_EQ(ARVOUUIDTable_GetBucketIndex(1, 2, 0), 0U);
  Visit visit{nullptr, {}, 1};
  EXPECT_EQ(ARVOUUIDTable_BreakingIterate(table, Visitor, &visit), 0U);
  EXPECT_EQ(ARVOUUIDTable_BreakingIterate(nullptr, Visitor, &visit), 0U);
  ARVOUUIDTable_Free(table);
}

}  // namespace
