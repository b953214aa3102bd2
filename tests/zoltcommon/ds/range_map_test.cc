// The range map against a vector of intervals: what stays, and every displaced piece in the order of its report.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <ostream>
#include <random>
#include <vector>

#include "kab/indexes.h"
#include "zoltcommon/ds/failing_alloc.h"

namespace {

using testing::ElementsAre;

constexpr uint64_t kNone = ~uint64_t{0};
constexpr uint32_t kNoMemory = 12;

struct Range {
  uint64_t start, end, owner, address, data;
  bool operator==(const Range&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Range& r) {
    return out << '[' << r.start << ',' << r.end << ") owner " << r.owner << " at " << r.address << " data " << r.data;
  }
};

struct Piece {
  uint64_t address, length, start, data, owner, arg;
  bool operator==(const Piece&) const = default;
};

std::vector<Piece>* reported;

uint64_t Report(uint64_t address, uint64_t length, uint64_t start, uint64_t data, uint64_t owner, uint64_t arg) {
  reported->push_back({address, length, start, data, owner, arg});
  return 77;  // of no interest
}

class Table {
 public:
  explicit Table(BucketlistCache* cache = nullptr) { EXPECT_EQ(ZOLTLbaTable_Init(&table, cache, 5), 0U); }
  ~Table() {
    ZOLTLbaTable_Destroy(&table);
    EXPECT_EQ(table.list, nullptr);
  }
  void Put(uint64_t start, uint64_t end, uint64_t owner, uint64_t address, uint64_t data = 0) {
    EXPECT_EQ(Rangemap_Insert(table.list, start, end, owner, address, data, Report, 5), 0U);
  }
  std::vector<Range> All() {
    std::vector<Range> all;
    ZOLTLbaTableCursor cursor;
    for (auto* r = ZOLTLbaTable_First(&table, &cursor); r != nullptr; r = ZOLTLbaTable_Next(&table, &cursor)) {
      all.push_back({r->start, r->start + r->length, r->owner, r->address, r->data});
    }
    return all;
  }
  ZOLTLbaTable table;
};

// Bare bytes: u16 count, then u64 sector and u16 sectors.
std::vector<uint8_t> Extents(const std::vector<std::pair<uint64_t, uint16_t>>& extents) {
  std::vector<uint8_t> bytes;
  const auto put = [&bytes](uint64_t value, int size) {
    for (int i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
  };
  put(extents.size(), 2);
  for (const auto& [sector, sectors] : extents) {
    put(sector, 8);
    put(sectors, 2);
  }
  return bytes;
}

class RangeMap : public testing::Test {
 protected:
  void SetUp() override { reported = &pieces; }
  std::vector<Piece> pieces;
};

class Model {
 public:
  // The pieces displaced, from the highest down.
  std::vector<Piece> Put(const Range& fresh, uint64_t arg) {
    std::vector<Range> left;
    std::vector<Piece> gone;
    for (const Range& r : ranges) {
      const uint64_t from = std::max(r.start, fresh.start);
      const uint64_t to = std::min(r.end, fresh.end);
      if (from >= to) {
        left.push_back(r);
        continue;
      }
      gone.push_back({r.address + (from - r.start), to - from, from, r.data, r.owner, arg});
      if (r.start < fresh.start) left.push_back({r.start, fresh.start, r.owner, r.address, r.data});
      if (r.end > fresh.end) left.push_back({fresh.end, r.end, r.owner, r.address + (fresh.end - r.start), r.data});
    }
    if (fresh.owner != kNone) left.push_back(fresh);
    std::sort(left.begin(), left.end(), [](const Range& a, const Range& b) { return a.end < b.end; });
    ranges = left;
    std::reverse(gone.begin(), gone.end());
    return gone;
  }
  // The upper end that the widened removal takes.
  uint64_t Widened(uint64_t end) const {
    for (const Range& r : ranges) {
      if (r.end > end) return r.start <= end ? r.end : end;
    }
    return end;
  }
  std::vector<Range> ranges;
};

struct ModelCase {
  const char* name;
  uint64_t space;
  uint64_t longest;
  uint64_t grain;
  uint32_t cacheNodes;
  uint32_t operations;
};

// By name: not every byte of a case is a field.
void PrintTo(const ModelCase& c, std::ostream* out) { *out << c.name; }

class RangeMapModel : public testing::TestWithParam<ModelCase> {};

TEST_P(RangeMapModel, AgreesWithAVectorOfIntervals) {
  const ModelCase& c = GetParam();
  BucketlistCache cache{};
  if (c.cacheNodes != 0) {
    ASSERT_EQ(Bucketlist_CacheInit(&cache, c.cacheNodes), 0U);
  }
  {
    Table table(c.cacheNodes != 0 ? &cache : nullptr);
    Model model;
    std::vector<Piece> pieces;
    reported = &pieces;
    std::mt19937_64 random(3);
    for (uint32_t i = 0; i < c.operations; ++i) {
      Range fresh{random() % c.space / c.grain * c.grain, 0, random() % 1000, (random() >> 20) & ~uint64_t{511}, i};
      fresh.end = fresh.start + (1 + random() % c.longest) * c.grain;
      if (!model.ranges.empty() && random() % 4 == 0) {  // along the edges of what is there
        const Range& near = model.ranges[random() % model.ranges.size()];
        fresh.start = random() % 2 == 0 ? near.start : near.end;
        fresh.end = random() % 3 == 0 && near.end > fresh.start ? near.end : fresh.start + fresh.end % 50 + 1;
      }
      const uint64_t arg = random();
      pieces.clear();
      uint32_t st = 0;
      const uint64_t kind = random() % 10;
      if (kind == 0) {
        fresh.owner = kNone;
        const uint64_t end = fresh.end;
        fresh.end = model.Widened(end);
        st = ZOLTLbaTable_RemoveRange(&table.table, fresh.start, end, Report, arg);
      } else if (kind == 1) {
        fresh.owner = kNone;
        st = ZOLTLbaTable_RemoveRangeExact(&table.table, fresh.start, fresh.end, Report, arg);
      } else {
        st = Rangemap_Insert(table.table.list, fresh.start, fresh.end, fresh.owner, fresh.address, fresh.data, Report,
                             arg);
      }
      ASSERT_EQ(st, 0U);
      ASSERT_EQ(model.Put(fresh, arg), pieces) << fresh;
      if (i % (c.operations / 40) == 0) {
        Bucketlist_Validate(table.table.list);
        ASSERT_EQ(table.All(), model.ranges) << fresh;
      }
    }
    ASSERT_EQ(table.All(), model.ranges);
  }
  Bucketlist_CacheDestroy(&cache);
}

constexpr ModelCase kCases[] = {
    {"Crowded", 600, 60, 1, 0, 12000},    {"Sparse", uint64_t{1} << 40, 64, 4096, 0, 4000},
    {"ManyShort", 20000, 8, 1, 0, 16000}, {"AtTheTop", uint64_t{1} << 63, uint64_t{1} << 40, 1, 0, 2000},
    {"Cached", 20000, 8, 1, 2, 8000},
};

INSTANTIATE_TEST_SUITE_P(Spaces, RangeMapModel, testing::ValuesIn(kCases), [](const auto& c) { return c.param.name; });

// What lies outside [start, end), without the piece that begins before `start` and reached it.
std::vector<Range> Outside(const std::vector<Range>& ranges, uint64_t start, uint64_t end) {
  std::vector<Range> left;
  for (const Range& r : ranges) {
    if (r.end < start || (r.end == start && r.start < start)) left.push_back(r);
    if (r.end > end) {
      const uint64_t from = std::max(r.start, end);
      left.push_back({from, r.end, r.owner, r.address + (from - r.start), r.data});
    }
  }
  return left;
}

TEST_F(RangeMap, StaysWholeWhenMemoryIsShort) {
  // An overwrite may fail half-way; whatever it left is in order, and outside its bounds all is as it was, but for a
  // head piece that was cut off.
  for (const uint32_t nodes : {0U, 2U, 4U}) {
    BucketlistCache cache{};
    if (nodes != 0) {
      ASSERT_EQ(Bucketlist_CacheInit(&cache, nodes), 0U);
    }
    {
      Table table(nodes != 0 ? &cache : nullptr);
      Model model;
      std::mt19937_64 random(8);
      uint32_t failed = 0;
      for (uint32_t i = 0; i < 3000; ++i) {
        const uint64_t start = random() % 15000;
        const Range fresh{start, start + 1 + random() % (random() % 200 == 0 ? 5000 : 8), random() % 8 == 0 ? kNone : i,
                          i * 512, 0};
        kab_test::FailAllocations(1 + i % 3);
        const uint32_t st =
            Rangemap_Insert(table.table.list, fresh.start, fresh.end, fresh.owner, fresh.address, 0, nullptr, 0);
        kab_test::FailAllocations(0);
        ASSERT_TRUE(st == 0 || st == kNoMemory);
        const std::vector<Range> before = model.ranges;
        model.Put(fresh, 0);
        if (st == 0 && i % 100 != 0) continue;
        const std::vector<Range> after = table.All();
        if (st == 0) {
          ASSERT_EQ(after, model.ranges) << fresh;
          continue;
        }
        ++failed;
        Bucketlist_Validate(table.table.list);
        uint64_t last = 0;
        for (const Range& r : after) {
          ASSERT_TRUE(r.start >= last && r.start < r.end) << r << " after " << fresh;
          last = r.end;
        }
        std::vector<Range> kept = Outside(before, fresh.start, fresh.end);
        std::vector<Range> found = Outside(after, fresh.start, fresh.end);
        std::erase_if(found, [&](const Range& r) { return r.end == fresh.start; });  // the head piece, if it is there
        std::erase_if(kept, [&](const Range& r) { return r.end == fresh.start; });
        ASSERT_EQ(found, kept) << fresh;
        model.ranges = after;
      }
      EXPECT_GT(failed, 0U);
    }
    Bucketlist_CacheDestroy(&cache);
  }
}

TEST_F(RangeMap, AFailureIsNotTheEndOfAnExtentList) {
  // The first extent finds no memory for its node, the second does.
  Table table;
  kab_test::FailAllocationAt(1);
  ZOLTLbaTable_Insert(&table.table, 1000, 0, 3, Extents({{8, 1}, {16, 1}, {24, 1}}).data(), 7, nullptr, 0);
  kab_test::FailAllocations(0);
  EXPECT_THAT(table.All(), ElementsAre(Range{1512, 2024, 3, 8192, 7}, Range{2024, 2536, 3, 12288, 7}));
}

TEST_F(RangeMap, ARemovalThatCannotSeeItsUpperEndFails) {
  BucketlistCache cache{};
  ASSERT_EQ(Bucketlist_CacheInit(&cache, 2), 0U);
  {
    Table table(&cache);
    for (uint64_t i = 0; i < 5000; ++i) table.Put(i * 10, i * 10 + 10, 1, i);
    const auto before = table.All();
    for (uint32_t n = 1; n <= 2; ++n) {
      ZOLTLbaTableCursor cursor;  // the removal's own node is at hand, that of the range at its end is not
      ASSERT_NE(ZOLTLbaTable_Find(&table.table, 30000, &cursor), nullptr);
      ASSERT_NE(ZOLTLbaTable_Find(&table.table, 5, &cursor), nullptr);
      const uint64_t end = 10 * 1024;  // where the second node begins
      kab_test::FailAllocationAt(n);
      pieces.clear();
      const uint32_t st = ZOLTLbaTable_RemoveRange(&table.table, end - 10, end, Report, 0);
      kab_test::FailAllocations(0);
      if (n == 1) {
        EXPECT_EQ(st, kNoMemory);
        EXPECT_EQ(table.All(), before);
      }
      EXPECT_TRUE(st == 0 || pieces.empty() || table.All() == before);
    }
  }
  Bucketlist_CacheDestroy(&cache);
}

TEST_F(RangeMap, ReportsWhatItDisplaces) {
  Table table;
  table.Put(0, 1000, 1, 5000, 9);
  table.Put(100, 200, 2, 70);
  EXPECT_THAT(table.All(),
              ElementsAre(Range{0, 100, 1, 5000, 9}, Range{100, 200, 2, 70, 0}, Range{200, 1000, 1, 5200, 9}));
  EXPECT_THAT(pieces, ElementsAre(Piece{5100, 100, 100, 9, 1, 5}));
  table.Put(100, 100, 3, 0);
  table.Put(200, 100, 3, 0);
  EXPECT_EQ(table.All().size(), 3U);
}

TEST_F(RangeMap, FindsFromAnOffsetOn) {
  Table table;
  ZOLTLbaTableCursor cursor;
  EXPECT_EQ(ZOLTLbaTable_First(&table.table, &cursor), nullptr);
  EXPECT_EQ(ZOLTLbaTable_Next(&table.table, &cursor), nullptr);
  table.Put(100, 200, 1, 0);
  table.Put(kNone - 1, kNone, 2, 0);
  const struct {
    uint64_t offset, start;
  } kFinds[] = {{0, 100}, {100, 100}, {199, 100}, {200, kNone - 1}, {kNone - 1, kNone - 1}};
  for (const auto& find : kFinds) {
    const ZOLTLbaRange* range = ZOLTLbaTable_Find(&table.table, find.offset, &cursor);
    ASSERT_NE(range, nullptr);
    EXPECT_EQ(range->start, find.start);
  }
  EXPECT_EQ(ZOLTLbaTable_UpdateData(&table.table, 44, &cursor), 0U);
  EXPECT_EQ(table.All().back().data, 44U);
  EXPECT_EQ(ZOLTLbaTable_Find(&table.table, kNone, &cursor), nullptr);
  // Nothing lies above the last offset, so nothing is widened there.
  EXPECT_EQ(ZOLTLbaTable_RemoveRange(&table.table, 150, kNone, nullptr, 0), 0U);
  EXPECT_THAT(table.All(), ElementsAre(Range{100, 150, 1, 0, 0}));
}

TEST_F(RangeMap, RemovalWidensOnlyUpwards) {
  for (const bool exact : {false, true}) {
    Table table;
    table.Put(100, 200, 1, 0);
    table.Put(200, 300, 2, 0);
    const auto remove = exact ? ZOLTLbaTable_RemoveRangeExact : ZOLTLbaTable_RemoveRange;
    EXPECT_EQ(remove(&table.table, 150, 250, nullptr, 0), 0U);
    EXPECT_EQ(table.All().size(), exact ? 2U : 1U);
    EXPECT_EQ(remove(&table.table, 0, 100, nullptr, 0), 0U);
    EXPECT_EQ(table.All().size(), exact ? 2U : 0U);
  }
}

TEST_F(RangeMap, FoldsExtentsThatNameOnePlace) {
  constexpr uint64_t kBig = 65535 * 512;
  const struct {
    std::vector<std::pair<uint64_t, uint16_t>> extents;
    std::vector<Range> expected;
  } kLists[] = {
      {{}, {}},
      {{{8, 8}, {8, 8}, {16, 8}, {16, 8}},
       {{1000, 9192, 3, 4096, 7}, {9192, 13288, 3, 8192, 7}, {13288, 17384, 3, 8192, 7}}},
      {{{8, 8}, {16, 8}}, {{1000, 5096, 3, 4096, 7}, {5096, 9192, 3, 8192, 7}}},
      {{{8, 0}, {9, 1}}, {{1000, 1512, 3, 4608, 7}}},
      // 1020 MiB a run: 31 of these stay below, the next would not.
      {std::vector<std::pair<uint64_t, uint16_t>>(33, {8, 65535}),
       {{1000, 1000 + 31 * kBig, 3, 4096, 7}, {1000 + 31 * kBig, 1000 + 33 * kBig, 3, 4096, 7}}},
      // Addresses beyond 64 bits are dropped, their offsets pass.
      {{{uint64_t{1} << 55, 8}, {8, 8}}, {{5096, 9192, 3, 4096, 7}}},
      {{{(uint64_t{1} << 55) - 1, 8}, {8, 8}}, {{5096, 9192, 3, 4096, 7}}},
      // Of those that would fold, the first still fits.
      {{{(uint64_t{1} << 55) - 9, 8}, {(uint64_t{1} << 55) - 9, 1}},
       {{1000, 5096, 3, kNone - 4607, 7}, {5096, 5608, 3, kNone - 4607, 7}}},
  };
  for (const auto& list : kLists) {
    Table table;
    ZOLTLbaTable_Insert(&table.table, 1000, 123, 3, Extents(list.extents).data(), 7, nullptr, 0);
    EXPECT_EQ(table.All(), list.expected);
  }
}

TEST_F(RangeMap, TablesCompareByContent) {
  Table a;
  Table b;
  EXPECT_EQ(ZOLTLbaTable_Compare(&a.table, &b.table), 1U);
  a.Put(0, 100, 1, 0);
  a.Put(50, 100, 2, 0);
  EXPECT_EQ(ZOLTLbaTable_Compare(&a.table, &b.table), 0U);
  b.Put(0, 50, 1, 0);
  EXPECT_EQ(ZOLTLbaTable_Compare(&a.table, &b.table), 0U);
  b.Put(50, 100, 2, 0);
  EXPECT_EQ(ZOLTLbaTable_Compare(&a.table, &b.table), 1U);
  b.Put(0, 50, 1, 0, 1);
  EXPECT_EQ(ZOLTLbaTable_Compare(&a.table, &b.table), 0U);
}

TEST_F(RangeMap, IndexMapFindsExactly) {
  ZOLTIndexMap map;
  ZOLTIndexMap other;
  ZOLTIndexMap_Init(&map, nullptr, 4);
  ZOLTIndexMap_Init(&other, nullptr, 4);
  ZOLTIndexMapCursor cursor{};
  EXPECT_EQ(ZOLTIndexMap_First(&map, &cursor), 2U);
  EXPECT_EQ(ZOLTIndexMap_Compare(&map, &other), 1U);
  for (uint64_t key = 10; key < 5000; key += 10) {
    const uint64_t tuple[5] = {key, 1, 2, key * 2, 99};
    ASSERT_EQ(ZOLTIndexMap_Insert(&map, tuple), 0U);
    ASSERT_EQ(ZOLTIndexMap_Insert(&other, tuple), 0U);
  }
  cursor.tuple[0] = 12345;
  EXPECT_EQ(ZOLTIndexMap_Find(&map, 15, &cursor), 2U);
  EXPECT_EQ(cursor.tuple[0], 12345U);
  EXPECT_EQ(cursor.iterator.key, 20U);
  ASSERT_EQ(ZOLTIndexMap_Find(&map, 30, &cursor), 0U);
  EXPECT_THAT(cursor.tuple, ElementsAre(30U, 1U, 2U, 60U, 0U));  // the fifth word is not stored
  EXPECT_EQ(ZOLTIndexMap_Compare(&map, &other), 1U);
  EXPECT_EQ(ZOLTIndexMap_UpdateData(&map, &cursor, 7), 0U);
  EXPECT_EQ(ZOLTIndexMap_Compare(&map, &other), 0U);
  ASSERT_EQ(ZOLTIndexMap_Find(&map, 30, &cursor), 0U);
  EXPECT_EQ(cursor.tuple[3], 7U);
  EXPECT_EQ(ZOLTIndexMap_Remove(&map, &cursor), 0U);
  EXPECT_EQ(ZOLTIndexMap_Next(&map, &cursor), 2U);
  EXPECT_EQ(ZOLTIndexMap_Find(&map, 30, &cursor), 2U);
  EXPECT_EQ(ZOLTIndexMap_Print(&map), 2U);
  BucketlistStats stats;
  ZOLTIndexMap_GetStats(&map, &stats);
  EXPECT_EQ(stats.numNodes, 1U);
  ZOLTIndexMap_Reinit(&map);
  EXPECT_EQ(map.list.tupleSize, 4U);
  EXPECT_EQ(ZOLTIndexMap_Compare(&map, &other), 0U);
  ZOLTIndexMap_Destroy(&map);
  ZOLTIndexMap_Destroy(&other);
}

}  // namespace
