// Map trees that a disk may claim and no tree may have.

#include <gmock/gmock.h>

#include <functional>

#include "orlo/orlo_group.h"

namespace {

using kab_test::OrloGroup;
using sample::OrloImage;
using sample::OrloRun;
using testing::HasSubstr;

constexpr OrloRun kRuns[] = {{0, 1, 1, false, 70}, {1500, 2, 1, false, 80}};

struct BrokenTree {
  const char* name;
  const char* line;
  /// Lays the tree at `root`; blocks behind it are free.
  void (*lay)(OrloImage&, sample::DiskImage&, uint64_t root);
  bool brokenRoot;
};

void PutPair(OrloImage& orlo, uint64_t block, uint64_t left, uint64_t right) {
  const uint32_t keys[] = {1000};
  const uint64_t children[] = {left, right};
  orlo.PutInterior(block, keys, children);
}

const BrokenTree kBroken[] = {
    {"LeafCount", "keys where",
     [](OrloImage& orlo, sample::DiskImage& disk, uint64_t root) {
       orlo.PutLeaf(root, kRuns);
       disk.Put16(OrloImage::BlockAt(root) + 16, static_cast<uint16_t>(0x8000 | (orlo.MaxLeafRecords() + 1)));
     },
     true},
    {"InteriorCount", "keys where",
     [](OrloImage& orlo, sample::DiskImage& disk, uint64_t root) {
       orlo.PutLeaf(root + 1, kRuns);
       PutPair(orlo, root, root + 1, root + 1);
       disk.Put16(OrloImage::BlockAt(root) + 16, static_cast<uint16_t>(orlo.MaxChildren()));
     },
     true},
    {"OwnChild", "it is its own ancestor",
     [](OrloImage& orlo, sample::DiskImage&, uint64_t root) { PutPair(orlo, root, root, root); }, false},
    {"Grandchild", "it is its own ancestor",
     [](OrloImage& orlo, sample::DiskImage&, uint64_t root) {
       PutPair(orlo, root, root + 1, root + 1);
       PutPair(orlo, root + 1, root, root);
     },
     false},
    {"EmptyLeaf", "a leaf without entries",
     [](OrloImage& orlo, sample::DiskImage&, uint64_t root) {
       PutPair(orlo, root, root + 1, root + 1);
       orlo.PutLeaf(root + 1, {});
     },
     false},
    {"TooDeep", "the tree is too deep",
     [](OrloImage& orlo, sample::DiskImage&, uint64_t root) {
       for (uint64_t i = 0; i < 32; ++i) PutPair(orlo, root + i, root + i + 1, root + i + 1);
       orlo.PutLeaf(root + 32, kRuns);
     },
     false},
    {"LogicalOverflow", "leave the logical space",
     [](OrloImage& orlo, sample::DiskImage&, uint64_t root) {
       const OrloRun runs[] = {{0, 1, 1, false, 70}, {0xffffffff, 2, 1, false, 80}};
       orlo.PutLeaf(root, runs);
     },
     true},
};

class BrokenMapTest : public testing::TestWithParam<std::tuple<int, uint8_t>> {};

TEST_P(BrokenMapTest, IsRefusedByNameAndLeavesNothingBehind) {
  const BrokenTree& tree = kBroken[std::get<0>(GetParam())];
  OrloGroup group(std::get<1>(GetParam()));
  const uint64_t root = group.orlo[0].Allocate(40);
  tree.lay(group.orlo[0], group.images.Disk(0), root);
  group.Open();

  OrloBTreeCursor cursor = group.Cursor(root);
  OrloExtent* extents = nullptr;
  EXPECT_EQ(OrloMapLookup(&cursor, 1000, 2000, 1000, &extents, 1), KAB_BLOCK_INVALID);
  EXPECT_THAT(group.log.Text(), HasSubstr(std::string(group.Disk()->uuidText) + ": MetaError: Invalid map block "));
  EXPECT_THAT(group.log.Text(), HasSubstr(tree.line));
  EXPECT_EQ(extents, nullptr);
  EXPECT_EQ(cursor.top, nullptr);

  EXPECT_EQ(OrloBTree_StepNext(&cursor), KAB_BLOCK_INVALID);
  OrloBTree_Clear(&cursor);
  EXPECT_EQ(OrloBTree_StepPrev(&cursor), KAB_BLOCK_INVALID);
  OrloBTree_Clear(&cursor);

  group.log.Clear();
  std::vector<uint32_t> bits(ORLO_LBA_MAP_BITS / 32);
  EXPECT_EQ(OrloReadComponentBtree(group.Disk(), root, bits.data()), tree.brokenRoot ? KAB_BLOCK_INVALID : KAB_OK);
  EXPECT_THAT(group.log.Text(), HasSubstr(tree.line));
  std::vector<uint8_t> superBlock(ORLO_SUPERBLOCK_SIZE);
  EXPECT_EQ(OrloReadWriteComponentSuperBlock(group.Disk(), root, superBlock.data(), 1), KAB_BLOCK_INVALID);
}

INSTANTIATE_TEST_SUITE_P(Trees, BrokenMapTest,
                         testing::Combine(testing::Range(0, static_cast<int>(std::size(kBroken))),
                                          testing::Values(uint8_t{6}, uint8_t{7})),
                         [](const auto& tree) {
                           return std::string(kBroken[std::get<0>(tree.param)].name) + "V" +
                                  std::to_string(std::get<1>(tree.param));
                         });

TEST(BrokenMapRunTest, PhysicalRunsEndWithTheirSpace) {
  OrloGroup group(7);
  constexpr uint64_t kLast = (1ULL << 45) - 1;
  const uint64_t root = group.orlo[0].Allocate(2);
  const OrloRun fits[] = {{0, 1, 1, false, kLast}};
  const OrloRun leaves[] = {{0, 2, 1, false, kLast}};
  group.orlo[0].PutLeaf(root, fits);
  group.orlo[0].PutLeaf(root + 1, leaves);
  group.Open();
  OrloBTreeCursor cursor = group.Cursor(root);
  EXPECT_EQ(OrloBTree_StepNext(&cursor), KAB_OK);
  OrloBTree_Clear(&cursor);
  cursor = group.Cursor(root + 1);
  EXPECT_EQ(OrloBTree_StepNext(&cursor), KAB_BLOCK_INVALID);
  EXPECT_THAT(group.log.Text(), HasSubstr("leave the physical space"));
}

// Thirty levels whose nodes all point many times at the next level's one node: more paths than could ever be walked.
TEST(BrokenMapSharedTest, SharedNodesDoNotMultiplyTheWork) {
  OrloGroup group(7);
  const uint64_t root = group.orlo[0].Allocate(31);
  std::vector<uint32_t> keys(339);
  for (uint32_t i = 0; i < keys.size(); ++i) keys[i] = 1 + i;
  for (uint64_t level = 0; level < 30; ++level) {
    group.orlo[0].PutInterior(root + level, keys, std::vector<uint64_t>(340, root + level + 1));
  }
  group.orlo[0].PutLeaf(root + 30, kRuns);
  group.Open();

  std::vector<uint32_t> bits(ORLO_LBA_MAP_BITS / 32);
  EXPECT_EQ(OrloReadComponentBtree(group.Disk(), root, bits.data()), KAB_OK);
  EXPECT_EQ(bits[(1500 - 1024) / 32], 3U << (1500 - 1024) % 32);

  group.log.Clear();
  OrloBTreeCursor cursor = group.Cursor(root);
  OrloExtent* extents = nullptr;
  EXPECT_EQ(OrloMapLookup(&cursor, 0, 4000, 4000, &extents, 1), KAB_BLOCK_INVALID);
  EXPECT_THAT(group.log.Text(), HasSubstr("the keys of the walk do not rise"));
}

TEST(BrokenMapRunTest, TheBitmapWalkAsksForAChildThatIsNoBlock) {
  for (const uint8_t version : {uint8_t{6}, uint8_t{7}}) {
    OrloGroup group(version);
    const uint64_t root = group.orlo[0].Allocate(2);
    PutPair(group.orlo[0], root, version == 6 ? UINT32_MAX : UINT64_MAX, root + 1);
    group.orlo[0].PutLeaf(root + 1, kRuns);
    group.Open();
    std::vector<uint32_t> bits(ORLO_LBA_MAP_BITS / 32);
    EXPECT_EQ(OrloReadComponentBtree(group.Disk(), root, bits.data()), KAB_OK);
    EXPECT_EQ(bits[(1500 - 1024) / 32], 3U << (1500 - 1024) % 32);
    EXPECT_THAT(group.log.Text(), HasSubstr(": Error: Read Failed at offset 144115188075855360, length 4096\n"));
  }
}

TEST(BrokenMapSharedTest, OverlappingRunsDoNotMultiplyTheWork) {
  OrloGroup group(7);
  std::vector<OrloRun> runs;
  for (uint32_t i = 0; i < 254; ++i) runs.push_back({1024 + i, (1U << 26) - 1, 1, false, 100});
  const uint64_t root = group.orlo[0].Allocate(1);
  group.orlo[0].PutLeaf(root, runs);
  group.Open();
  std::vector<uint32_t> bits(ORLO_LBA_MAP_BITS / 32 + 1);  // a guard word behind the bitmap
  EXPECT_EQ(OrloReadComponentBtree(group.Disk(), root, bits.data()), KAB_BLOCK_INVALID);
  EXPECT_THAT(group.log.Text(), HasSubstr("the runs of the tree overlap"));
  EXPECT_EQ(bits[ORLO_LBA_MAP_BITS / 32 - 1], ~0U);
  EXPECT_EQ(bits.back(), 0U);
}

}  // namespace
