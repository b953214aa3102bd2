// Components as their maps place them, against the builder's picture.

#include <gmock/gmock.h>

#include <random>

#include "kab/indexes.h"
#include "kab/ssdlog.h"
#include "orlo/orlo_group.h"

namespace {

using kab_test::OrloGroup;
using kab_test::Untouched;
using sample::MakeUuid;
using sample::OrloImage;
using sample::UuidText;
using testing::HasSubstr;

constexpr uint64_t kBlock = 4096;

struct ComponentCase {
  const char* name;
  uint8_t version;
  uint32_t runs;
  sample::OrloTreeShape tree;
};

// By name: not every byte of a case is a field.
void PrintTo(const ComponentCase& c, std::ostream* out) { *out << c.name; }

class ComponentTest : public testing::TestWithParam<ComponentCase> {
 protected:
  void SetUp() override {
    const ComponentCase& c = GetParam();
    auto& orlo = group_.orlo[0];
    orlo.AddVdisk(MakeUuid(500), OrloImage::MakeRuns(20, 5, 1));
    orlo.AddVdisk(MakeUuid(501), OrloImage::MakeRuns(c.runs, 6, 2), c.tree);
    end_ = orlo.vdisks()[1].runs.back().logical + 40;
  }
  void Open() {
    group_.Open();
    component_ = OrloOpenComponent(group_.ssd, UuidText(MakeUuid(501)).c_str());
    ASSERT_NE(component_, nullptr);
  }
  void TearDown() override { OrloCloseComponent(component_); }

  void ReadRandomRanges() {
    std::mt19937_64 random(17);
    for (int round = 0; round < 200; ++round) {
      const uint64_t start = random() % end_ * kBlock;
      const auto length = static_cast<uint32_t>(random() % 150 * kBlock);
      auto buf = Untouched(length);
      ASSERT_EQ(OrloReadComponent(component_, buf.data(), start, length), KAB_OK) << group_.log.Text();
      ASSERT_EQ(buf, group_.orlo[0].Picture(1, start, length)) << start << " " << length;
    }
  }

  OrloGroup group_{GetParam().version};
  OrloComponent* component_ = nullptr;
  uint64_t end_ = 0;
};

TEST_P(ComponentTest, RandomRangesReadAsThePicture) {
  Open();
  ReadRandomRanges();
  EXPECT_STREQ(component_->uuidText, UuidText(MakeUuid(501)).c_str());
  EXPECT_EQ(component_->disk, group_.Disk());
  EXPECT_EQ(group_.log.Text(), "");
}

// Only whole blocks of the range are looked up, and no more of them than fit into the length.
TEST_P(ComponentTest, UnalignedRangesReadTheirWholeBlocks) {
  Open();
  std::mt19937_64 random(18);
  for (int round = 0; round < 200; ++round) {
    const uint64_t start = random() % (end_ * kBlock);
    const auto length = static_cast<uint32_t>(random() % (20 * kBlock));
    auto buf = Untouched(length);
    ASSERT_EQ(OrloReadComponent(component_, buf.data(), start, length), KAB_OK);
    auto expected = group_.orlo[0].Picture(1, start, length);
    const uint64_t lookedUp = (start + length) / kBlock * kBlock;
    const uint64_t known = lookedUp > start && length >= kBlock ? std::min<uint64_t>(lookedUp - start, length) : 0;
    uint64_t capacity = length / kBlock;
    for (uint64_t at = start / kBlock * kBlock; at < lookedUp; at += kBlock) {
      bool mapped = false;
      for (const auto& run : group_.orlo[0].vdisks()[1].runs) {
        if (run.logical <= at / kBlock && at / kBlock < uint64_t{run.logical} + run.count) mapped = true;
      }
      if (mapped && capacity-- == 0) {  // past the capacity everything is zeros
        std::fill(expected.begin() + static_cast<ptrdiff_t>(at > start ? at - start : 0), expected.end(), 0);
        break;
      }
    }
    std::fill(expected.begin() + static_cast<ptrdiff_t>(known), expected.end(), 0);
    ASSERT_EQ(buf, expected) << start << " " << length;
  }
}

TEST_P(ComponentTest, ReadsThroughTheWriteBuffer) {
  // Every third map block and data run moves to the SSD; on the disk garbage takes its place.
  auto& orlo = group_.orlo[0];
  auto& disk = group_.images.Disk(0);
  auto& ssd = group_.images.Ssd();
  ssd.Size(64ULL << 20);
  const auto& vdisk = orlo.vdisks()[1];
  struct Moved {
    uint64_t block, count, address;
  };
  std::vector<Moved> moved;
  uint64_t address = 1 << 20;
  const auto move = [&](uint64_t block, uint64_t count) {
    ssd.PutBytes(3145728 + address, disk.GetBytes(OrloImage::BlockAt(block), count * kBlock));
    moved.push_back({block, count, address});
    address += (count + 1) * kBlock;
  };
  for (size_t i = 0; i < vdisk.mapBlocks.size(); i += 3) move(vdisk.mapBlocks[i], 1);
  move(vdisk.root, 1);
  for (size_t i = 0; i < vdisk.runs.size(); i += 3) {
    if (!vdisk.runs[i].hole) move(vdisk.runs[i].physical, vdisk.runs[i].count);
  }
  const sample::DiskImage sound = disk;
  for (const Moved& m : moved) disk.FillNoise(OrloImage::BlockAt(m.block), m.count * kBlock, m.address);
  group_.Open();
  KABDiskCtx* ctx = group_.Disk();
  ASSERT_EQ(Bucketlist_CacheInit(&group_.ssd->blPLOGLbaCache, 16), KAB_OK);
  ASSERT_EQ(Bucketlist_CacheInit(&group_.ssd->blPLOGLsnCache, 16), KAB_OK);
  group_.ssd->plogCachesInitialised = 1;
  ASSERT_EQ(KABSSDLOGInitPLOGState(ctx, &group_.ssd->blPLOGLbaCache, &group_.ssd->blPLOGLsnCache), KAB_OK);
  for (const Moved& m : moved) {
    Rangemap_Insert(ctx->plogState->lbaTable.list, m.block * kBlock, (m.block + m.count) * kBlock, 1, m.address, 0,
                    nullptr, 0);
  }
  component_ = OrloOpenComponent(group_.ssd, UuidText(MakeUuid(501)).c_str());
  ASSERT_NE(component_, nullptr);
  disk = sound;  // the picture is the builder's
  ReadRandomRanges();
}

TEST_P(ComponentTest, TheBitmapHoldsTheAllocatedBlocks) {
  Open();
  std::vector<uint32_t> expected(ORLO_LBA_MAP_BITS / 32);
  for (const auto& run : group_.orlo[0].vdisks()[1].runs) {
    if (run.logical < 1024 || run.type != 1) continue;
    for (uint32_t bit = run.logical - 1024; bit < run.logical - 1024 + run.count; ++bit) {
      expected[bit / 32] |= 1U << bit % 32;
    }
  }
  for (int round = 0; round < 2; ++round) {
    const uint32_t* bits = OrloReadComponentLbaBitMap(component_);
    ASSERT_NE(bits, nullptr);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), bits));
  }
}

INSTANTIATE_TEST_SUITE_P(Maps, ComponentTest,
                         testing::Values(ComponentCase{"OldOne", 6, 200, {}}, ComponentCase{"OldTwo", 6, 700, {}},
                                         ComponentCase{"OldThree", 6, 400, {8, 9, true}},
                                         ComponentCase{"NewOne", 7, 200, {}},
                                         ComponentCase{"NewThree", 7, 500, {8, 9, false}}),
                         [](const auto& c) { return std::string(c.param.name); });

TEST(OpenComponentTest, TheLastDiskThatListsItCounts) {
  OrloGroup group(7, 4);
  for (const uint32_t disk : {0U, 2U}) {
    group.orlo[disk].AddVdisk(MakeUuid(500), {{0, 1}});
    group.orlo[disk].AddVdisk(MakeUuid(501), {{0, 1}}, {}, false);
  }
  group.Open();
  OrloComponent* component = OrloOpenComponent(group.ssd, UuidText(MakeUuid(500)).c_str());
  ASSERT_NE(component, nullptr);
  EXPECT_EQ(component->disk, group.disks[2]);
  OrloCloseComponent(component);
  EXPECT_EQ(OrloOpenComponent(group.ssd, UuidText(MakeUuid(999)).c_str()), nullptr);

  component = OrloOpenComponent(group.ssd, UuidText(MakeUuid(501)).c_str());
  ASSERT_NE(component, nullptr);
  auto buf = Untouched(8192);
  EXPECT_EQ(OrloReadComponent(component, buf.data(), 0, 8192), KAB_OK);  // no superblock: not touched
  EXPECT_EQ(buf, Untouched(8192));
  EXPECT_EQ(OrloReadComponentLbaBitMap(component), nullptr);
  OrloCloseComponent(component);
  EXPECT_EQ(group.log.Text(), "");
}

TEST(OpenComponentTest, ADiskThatCannotBeReadEndsTheSearch) {
  OrloGroup group(7, 2);
  group.orlo[0].AddVdisk(MakeUuid(500), {{0, 1}});
  group.Open();
  group.disks[1]->dataOffset = group.disks[1]->diskSize;
  EXPECT_EQ(OrloOpenComponent(group.ssd, UuidText(MakeUuid(500)).c_str()), nullptr);
  EXPECT_THAT(group.log.Text(),
              HasSubstr(std::string("Error: ") + group.disks[1]->uuidText + ": Orlo block0 read failed: IO Error\n"));
}

TEST(ReadComponentTest, AFailedReadIsToldAndLeavesZerosBehindIt) {
  OrloGroup group(6);
  auto& orlo = group.orlo[0];
  const auto& vdisk = orlo.AddVdisk(MakeUuid(500), {{0, 1}, {1, 1}, {2, 1}});
  group.images.Disk(0).Put32(OrloImage::BlockAt(vdisk.root) + 1374 + 8, 0xfffffff0);
  group.Open();
  OrloComponent* component = OrloOpenComponent(group.ssd, UuidText(MakeUuid(500)).c_str());
  ASSERT_NE(component, nullptr);
  auto buf = Untouched(3 * kBlock);
  EXPECT_EQ(OrloReadComponent(component, buf.data(), 0, 3 * kBlock), KAB_IO_ERROR);
  EXPECT_THAT(group.log.Text(), HasSubstr(": Error: Orlo Component read failed for vdiskID 1\n"));
  auto expected = orlo.Picture(0, 0, kBlock);
  expected.resize(3 * kBlock);
  EXPECT_EQ(buf, expected);
  OrloCloseComponent(component);
}

}  // namespace
