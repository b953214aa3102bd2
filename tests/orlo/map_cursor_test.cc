// Walks and look-ups in sound map trees, against the plain list of the runs.

#include <gmock/gmock.h>

#include <cstring>
#include <random>

#include "orlo/orlo_group.h"

namespace {

using kab_test::OrloGroup;
using sample::OrloRun;

struct Shape {
  const char* name;
  uint8_t version;
  uint32_t runs;
  sample::OrloTreeShape tree;
  uint32_t levels;
};

// By name: not every byte of a case is a field.
void PrintTo(const Shape& c, std::ostream* out) { *out << c.name; }

constexpr Shape kShapes[] = {
    {"OldOneLevel", 6, 300, {}, 1},
    {"OldTwoLevels", 6, 900, {}, 2},
    {"OldThreeLevels", 6, 600, {7, 12, false}, 3},
    {"NewOneLevel", 7, 240, {}, 1},
    {"NewTwoLevels", 7, 2000, {}, 2},
    {"NewThreeLevels", 7, 900, {9, 11, false}, 3},
    {"NewestLooseSeparators", 20, 400, {3, 5, true}, 5},
    {"OldLooseSeparators", 6, 200, {2, 3, true}, 5},
    {"NewOneRecordLeaves", 7, 60, {1, 2, false}, 6},
};

class MapCursorTest : public testing::TestWithParam<Shape> {
 protected:
  void SetUp() override {
    const Shape& shape = GetParam();
    // Without the superblock's runs: most ranges of a look-up should meet the dense part.
    runs_ = sample::OrloImage::MakeRuns(shape.runs, 4, 99 + shape.runs);
    const auto& vdisk = group_.orlo[0].AddVdisk(sample::MakeUuid(500), runs_, shape.tree);
    ASSERT_GE(vdisk.levels, shape.levels);
    runs_ = vdisk.runs;
    group_.Open();
    cursor_ = group_.Cursor(vdisk.root);
  }
  void TearDown() override { OrloBTree_Clear(&cursor_); }

  /// The key the cursor rests on, read at bare offsets.
  uint32_t Key() const {
    uint32_t key = 0;
    std::memcpy(&key, cursor_.top->block + 18 + 4 * cursor_.top->index, sizeof key);
    return key;
  }
  uint32_t Floor(uint64_t lba) const {
    uint32_t floor = runs_.front().logical;
    for (const OrloRun& run : runs_) {
      if (run.logical <= lba) floor = run.logical;
    }
    return floor;
  }
  uint64_t End() const { return runs_.back().logical + runs_.back().count; }

  OrloGroup group_{GetParam().version};
  std::vector<OrloRun> runs_;
  OrloBTreeCursor cursor_{};
};

TEST_P(MapCursorTest, WalksBothWaysAndStartsAgainPastTheEnds) {
  for (int round = 0; round < 2; ++round) {  // the second round starts from the stack that the first left empty
    for (const OrloRun& run : runs_) {
      ASSERT_EQ(OrloBTree_StepNext(&cursor_), KAB_OK);
      ASSERT_NE(cursor_.top, nullptr);
      ASSERT_EQ(Key(), run.logical);
    }
    ASSERT_EQ(OrloBTree_StepNext(&cursor_), KAB_OK);
    ASSERT_EQ(cursor_.top, nullptr);
    ASSERT_EQ(cursor_.depth, 0U);
  }
  for (auto run = runs_.rbegin(); run != runs_.rend(); ++run) {
    ASSERT_EQ(OrloBTree_StepPrev(&cursor_), KAB_OK);
    ASSERT_NE(cursor_.top, nullptr);
    ASSERT_EQ(Key(), run->logical);
  }
  ASSERT_EQ(OrloBTree_StepPrev(&cursor_), KAB_OK);
  EXPECT_EQ(cursor_.top, nullptr);
  EXPECT_EQ(group_.log.Text(), "");
}

TEST_P(MapCursorTest, FindsTheFloorOfEveryBlockAroundEveryKey) {
  for (const OrloRun& run : runs_) {
    for (const int64_t off : {-2, -1, 0, 1, 2}) {
      const int64_t lba = int64_t{run.logical} + off;
      if (lba < 0) continue;
      ASSERT_EQ(OrloMapLookupTraverse(&cursor_, static_cast<uint64_t>(lba)), KAB_OK);
      ASSERT_NE(cursor_.top, nullptr);
      ASSERT_EQ(Key(), Floor(static_cast<uint64_t>(lba))) << lba;
    }
  }
  ASSERT_EQ(OrloMapLookupTraverse(&cursor_, UINT64_MAX), KAB_OK);
  EXPECT_EQ(Key(), runs_.back().logical);
}

TEST_P(MapCursorTest, HandsOutTheRunsOfARange) {
  std::mt19937_64 random(5);
  for (int round = 0; round < 300; ++round) {
    const uint64_t start = random() % (End() + 10);
    const uint64_t end = start + random() % 200;
    const auto capacity = static_cast<uint32_t>(round % 2 == 0 ? 100000 : random() % 60);
    const uint32_t mode = 1 + round % 3 % 2;
    std::vector<OrloExtent> expected;
    uint64_t left = capacity;
    for (const OrloRun& run : runs_) {
      if (mode == 2 && run.hole && run.type != 1 && run.type != 2) continue;
      const uint64_t from = std::max<uint64_t>(run.logical, start);
      const uint64_t to = std::min({uint64_t{run.logical} + run.count, end, from + left});
      if (from >= to) continue;
      const uint64_t physical = run.hole ? UINT64_MAX : (run.physical + from - run.logical) * 8;
      expected.push_back({nullptr, run.type, physical, from * 8, (to - from) * 8});
      left -= to - from;
    }
    OrloExtent* extents = nullptr;
    ASSERT_EQ(OrloMapLookup(&cursor_, start, end, capacity, &extents, mode), KAB_OK);
    ASSERT_EQ(cursor_.top, nullptr);
    size_t i = 0;
    while (extents != nullptr) {
      ASSERT_LT(i, expected.size());
      EXPECT_EQ(extents->type, expected[i].type);
      EXPECT_EQ(extents->physicalSectors, expected[i].physicalSectors);
      EXPECT_EQ(extents->logicalSectors, expected[i].logicalSectors);
      EXPECT_EQ(extents->sectorCount, expected[i].sectorCount);
      OrloExtent* next = extents->next;
      KABFree(&extents);
      extents = next;
      ++i;
    }
    ASSERT_EQ(i, expected.size()) << start << " " << end << " " << capacity;
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, MapCursorTest, testing::ValuesIn(kShapes),
                         [](const auto& shape) { return std::string(shape.param.name); });

TEST(MapCursorEmptyTest, ATreeWithoutRecordsLeavesTheStackEmpty) {
  OrloGroup group(7);
  const uint64_t emptyLeaf = group.orlo[0].Allocate(1);
  group.orlo[0].PutLeaf(emptyLeaf, {});
  group.Open();
  for (const uint64_t root : {UINT64_MAX, emptyLeaf}) {
    OrloBTreeCursor cursor = group.Cursor(root);
    OrloExtent* extents = nullptr;
    EXPECT_EQ(OrloBTree_StepNext(&cursor), KAB_OK);
    EXPECT_EQ(OrloBTree_StepPrev(&cursor), KAB_OK);
    EXPECT_EQ(OrloMapLookupTraverse(&cursor, 5), KAB_OK);
    EXPECT_EQ(OrloMapLookup(&cursor, 0, 50, 50, &extents, 1), KAB_OK);
    EXPECT_EQ(cursor.top, nullptr);
    EXPECT_EQ(extents, nullptr);
  }
  EXPECT_EQ(group.log.Text(), "");
}

TEST(MapCursorPushTest, AllOnesMeansTheLastPosition) {
  OrloGroup group(7);
  const OrloRun runs[] = {{0, 1}, {1, 1}, {2, 1}};
  const uint64_t leaf = group.orlo[0].Allocate(2);
  group.orlo[0].PutLeaf(leaf, runs);
  const uint32_t keys[] = {10};
  const uint64_t children[] = {leaf, leaf};
  group.orlo[0].PutInterior(leaf + 1, keys, children);
  group.Open();
  OrloBTreeCursor cursor = group.Cursor(leaf + 1);
  for (const auto& [block, last] : {std::pair{leaf, 2U}, std::pair{leaf + 1, 1U}}) {
    auto* bytes = static_cast<uint8_t*>(KABAlloc(ORLO_MAP_BLOCK_SIZE));
    ASSERT_EQ(OrloReadVBTMapBlock(group.Disk(), block, bytes), KAB_OK);
    ASSERT_EQ(OrloBTree_Push(&cursor, bytes, UINT64_MAX), KAB_OK);
    EXPECT_EQ(cursor.top->index, last);
  }
  EXPECT_EQ(cursor.depth, 2U);
  OrloBTree_Clear(&cursor);
  OrloBTree_Pop(&cursor);  // of an empty stack: nothing
  EXPECT_EQ(cursor.depth, 0U);
}

}  // namespace
