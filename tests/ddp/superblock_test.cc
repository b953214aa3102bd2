// The superblock: every layout passes, and every field that breaks a rule is told and corrected.

#include "ddp/dedup_fixture.h"

namespace {

using kab_test::DedupImage;
using kab_test::Shape;

class SuperBlockTest : public kab_test::DedupTest {
 protected:
  std::string Line(const std::string& text, uint32_t disk = 0) { return disks_[disk]->uuidText + (": " + text) + "\n"; }
  uint8_t* Buf(uint32_t disk = 0) { return disks_[disk]->dedupCtx.superBlk; }
};

TEST_F(SuperBlockTest, EveryLayoutPassesAsItIs) {
  for (const uint32_t mode : {1U, 2U}) {
    for (int variant = 0; variant < 8; ++variant) {
      Shape shape{.mode = mode, .disks = 3};
      shape.mdr = (variant & 1) != 0;
      shape.mapBitmaps = (variant & 2) != 0;
      shape.hashMap = (variant & 4) != 0;
      if (shape.mdr && shape.mapBitmaps) shape.expansion = 2;
      if (variant == 7) shape.diskSize = 80ULL << 20;  // a bitmap of two blocks
      DedupImage image(shape);
      Open(image);
      for (KABDiskCtx* disk : disks_) {
        const std::vector<uint8_t> before(disk->dedupCtx.superBlkBuf, disk->dedupCtx.superBlkBuf + 4096);
        uint8_t fixed = 7;
        EXPECT_EQ(DDPValidateSuperBlk(disk, &fixed), 1U) << mode << " " << variant;
        EXPECT_EQ(fixed, 1);
        EXPECT_EQ(std::memcmp(before.data(), disk->dedupCtx.superBlk, 4096), 0) << mode << " " << variant;
        if (shape.mdr) DDPCompareSuperBlks(disk);
      }
      EXPECT_EQ(log_.Text(), "") << mode << " " << variant;
    }
  }
}

struct SpoiltField {
  uint32_t offset;
  uint32_t width;
  bool mdr;
  const char* line;  // %lu stands for the spoilt value
};

// Each raised by 5.
constexpr SpoiltField kSpoilt[] = {
    {92, 8, true, "Invalid txnSBSize "},          {108, 8, true, "Invalid resrvSize "},
    {124, 8, true, "Invalid hmap size "},         {140, 8, true, "Invalid bmapSize "},
    {261, 8, true, "Invalid expansion1Size "},    {156, 8, true, "Invalid xmapSize "},
    {188, 8, true, "Invalid metaBmapHmapSize "},  {204, 8, true, "Invalid metaBmapBmapSize "},
    {220, 8, true, "Invalid metaBmapXmapSize "},  {84, 8, true, "Invalid txnSBStart "},
    {100, 8, true, "Invalid resrvStart "},        {132, 8, true, "Invalid bmapStart "},
    {148, 8, true, "Invalid xmapStart "},         {180, 8, true, "Invalid metaBmapHmapStart "},
    {196, 8, true, "Invalid metaBmapBmapStart "}, {212, 8, true, "Invalid metaBmapXmapStart "},
    {116, 8, true, "Invalid hmapStart "},         {164, 8, true, "Invalid data start(1) "},
    {172, 8, true, "Invalid data size "},         {116, 8, false, "Invalid hmapStart "},
    {132, 8, false, "Invalid bmapStart "},        {148, 8, false, "Invalid xmapStart "},
    {156, 8, false, "Invalid xmapSize "},         {164, 8, false, "Invalid data start(0) "},
};

TEST_F(SuperBlockTest, ASpoiltFieldIsToldAndPutRight) {
  for (const bool mdr : {true, false}) {
    DedupImage image({.mode = 2, .disks = 2, .mdr = mdr});
    Open(image);
    for (const SpoiltField& c : kSpoilt) {
      if (c.mdr != mdr) continue;
      const std::vector<uint8_t> whole(Buf(), Buf() + 4096);
      const uint64_t value = Get(Buf() + c.offset, c.width) + 5;
      Put(Buf() + c.offset, c.width, value);
      SealBlk(Buf());
      log_.Clear();
      uint8_t fixed = 0;
      EXPECT_EQ(DDPValidateSuperBlk(disks_[0], &fixed), 1U);
      EXPECT_EQ(fixed, 1);
      EXPECT_EQ(log_.Text(), Line(std::string("MetaError: ") + c.line + std::to_string(value)));
      EXPECT_EQ(std::memcmp(whole.data(), Buf(), 4096), 0) << c.line;
      std::memcpy(Buf(), whole.data(), 4096);
    }
  }
}

TEST_F(SuperBlockTest, FieldsThatOnlyRedundantMetadataHas) {
  DedupImage image({.mode = 2, .disks = 2, .mdr = false});
  Open(image);
  Put(Buf() + 253, 8, 9);
  Put(Buf() + 261, 8, 4);
  SealBlk(Buf());
  uint8_t fixed = 0;
  EXPECT_EQ(DDPValidateSuperBlk(disks_[0], &fixed), 1U);
  EXPECT_EQ(log_.Text(), Line("MetaError: Invalid expansion1Size 4 when mdr disabled") +
                             Line("MetaError: Invalid softReserveSize 9 when mdr disabled"));
  EXPECT_EQ(Get(Buf() + 253, 8) + Get(Buf() + 261, 8), 0U);
}

TEST_F(SuperBlockTest, WithRedundantMetadataASmallerMapMeansAnExpansion) {
  DedupImage image({.mode = 2, .disks = 1});
  Open(image);
  const uint64_t xmapSize = Get(Buf() + 156, 8) - 3;
  Put(Buf() + 156, 8, xmapSize);
  Put(Buf() + 253, 8, 9);  // not checked here
  SealBlk(Buf());
  uint8_t fixed = 0;
  EXPECT_EQ(DDPValidateSuperBlk(disks_[0], &fixed), 1U);
  EXPECT_THAT(log_.Text(), testing::StartsWith(Line("MetaError: Invalid expansion1Size 0")));
  EXPECT_THAT(log_.Text(), testing::Not(testing::HasSubstr("xmapSize")));
  EXPECT_EQ(Get(Buf() + 156, 8), xmapSize);
  EXPECT_EQ(Get(Buf() + 261, 8), 6U);
  EXPECT_EQ(Get(Buf() + 253, 8), 9U);
}

TEST_F(SuperBlockTest, HeaderFaults) {
  DedupImage image({.mode = 1, .disks = 1});
  Open(image);
  const std::vector<uint8_t> whole(Buf(), Buf() + 4096);
  uint8_t fixed = 9;

  Put(Buf() + 4, 4, 3);
  EXPECT_EQ(DDPValidateSuperBlk(disks_[0], &fixed), 0U);
  EXPECT_EQ(fixed, 0);
  EXPECT_EQ(log_.Text(), Line("MetaError: Invalid blk type 3 in ddp super block"));

  log_.Clear();
  Put(Buf(), 4, 0x1234);
  EXPECT_EQ(DDPValidateSuperBlk(disks_[0], &fixed), 0U);
  EXPECT_EQ(log_.Text(), Line("MetaError: Invalid magic 0x1234 ddp super block SB header"));

  log_.Clear();
  std::memcpy(Buf(), whole.data(), 4096);
  const uint64_t right = Get(Buf() + 16, 4);
  Put(Buf() + 16, 4, 77);
  EXPECT_EQ(DDPValidateSuperBlk(disks_[0], &fixed), 1U);
  EXPECT_EQ(fixed, 1);
  EXPECT_EQ(log_.Text(), Line("MetaError: Checksum mismatch for in ddp super block header, saved 77, computed " +
                              std::to_string(right)));
  EXPECT_EQ(Get(Buf() + 16, 4), right);
}

TEST_F(SuperBlockTest, WithoutAHashMapItsSizeIsCleared) {
  DedupImage image({.mode = 1, .disks = 1});
  Open(image);
  Put(Buf() + 80, 2, Get(Buf() + 80, 2) & ~1ULL);
  SealBlk(Buf());
  uint8_t fixed = 0;
  EXPECT_EQ(DDPValidateSuperBlk(disks_[0], &fixed), 1U);
  EXPECT_THAT(log_.Text(), testing::StartsWith(Line("MetaError: Invalid hmap size 1")));
  EXPECT_EQ(Get(Buf() + 124, 8), 0U);
}

TEST_F(SuperBlockTest, AConfiguredRatioCountsWithoutRedundantMetadataOnly) {
  for (const bool mdr : {true, false}) {
    DedupImage image({.mode = 1, .disks = 1, .mdr = mdr, .ratio = 4});
    Open(image);
    disks_[0]->dedupCtx.ddpRatio = 8;
    uint8_t fixed = 0;
    DDPValidateSuperBlk(disks_[0], &fixed);
    EXPECT_EQ(log_.Text().find("Invalid xmapSize") != std::string::npos, !mdr);
  }
}

TEST_F(SuperBlockTest, TheMapsBitmapLeavesRoomForTheLargestRatio) {
  DedupImage image({.mode = 1, .disks = 1, .ratio = 4});
  Open(image);
  disks_[0]->usableSize = uint64_t{1} << 36;  // 2^24 blocks, hence 745655 of the map at a ratio of 10, 16 to a bit
  uint8_t fixed = 0;
  EXPECT_EQ(DDPValidateSuperBlk(disks_[0], &fixed), 1U);
  EXPECT_EQ(Get(Buf() + 220, 8), 2U);
  Put(Buf() + 251, 1, 0);
  EXPECT_EQ(DDPValidateSuperBlk(disks_[0], &fixed), 1U);
  EXPECT_EQ(Get(Buf() + 220, 8), 0U);
}

TEST_F(SuperBlockTest, ForgedSizesNeitherTrapNorHang) {
  std::mt19937_64 random(5);
  DedupImage image({.mode = 2, .disks = 2});
  Open(image);
  const std::vector<uint8_t> whole(Buf(), Buf() + 4096);
  for (int round = 0; round < 2000; ++round) {
    std::memcpy(Buf(), whole.data(), 4096);
    for (uint32_t at = 80; at < 301; ++at) {
      if (random() % 4 == 0) Buf()[at] = static_cast<uint8_t>(random());
    }
    uint8_t fixed = 0;
    std::vector<uint8_t> block(4096);
    uint64_t place = 0;
    uint32_t dev = 0;
    uint32_t slot = 0;
    (void)DDPReadSecSuperBlk(disks_[0], block.data(), nullptr);
    (void)DDPReadXMapBlks(disks_[0], random(), 1, block.data(), nullptr);
    (void)DDPReadSecXMapBlks(disks_[0], random(), 1, block.data(), nullptr);
    DDPUpdateBlkStatsForDG(ssd_);
    (void)DDPReadHashMapBlkByIndex(ssd_, random(), block.data(), &dev, &place, &slot, nullptr);
    (void)DDPGetHashBlockFromHash(ssd_, whole.data(), &dev, &place, &place);
    ASSERT_EQ(DDPValidateSuperBlk(disks_[0], &fixed), 1U);
  }
}

TEST_F(SuperBlockTest, GroupStatisticsCountMembersWithAHashMap) {
  DedupImage image({.mode = 2, .disks = 4});
  Open(image);
  const uint64_t usable = disks_[0]->usableSize;
  const uint64_t hmapSize = image.Place().hmapSize;
  DDPUpdateBlkStatsForDG(ssd_);
  EXPECT_EQ(ssd_->dedupCtx.memberCount, 4U);
  EXPECT_EQ(ssd_->dedupCtx.totalBlks, 4 * usable >> 12);
  EXPECT_EQ(ssd_->dedupCtx.avgHmapSize, hmapSize);

  Put(Buf(2) + 80, 2, 4);  // no hash map any more
  CloseDisk(1);            // an empty slot in the middle
  DDPUpdateBlkStatsForDG(ssd_);
  EXPECT_EQ(ssd_->dedupCtx.memberCount, 2U);
  EXPECT_EQ(ssd_->dedupCtx.totalBlks, 2 * usable >> 12);

  for (const size_t disk : {0, 2, 3}) CloseDisk(disk);
  DDPUpdateBlkStatsForDG(ssd_);
  EXPECT_EQ(ssd_->dedupCtx.memberCount, 0U);
  EXPECT_EQ(ssd_->dedupCtx.totalBlks, 0U);
  EXPECT_EQ(ssd_->dedupCtx.avgHmapSize, 0U);
}

TEST_F(SuperBlockTest, ADisagreeingSecondCopyIsReportedFieldByField) {
  const struct {
    uint32_t offset, width;
    const char* line;
  } cases[] = {
      {0, 4, "between SB header magic 0x"},
      {4, 4, "between SB header blkType"},
      {16, 4, "between SB header checksum"},
      {80, 2, "between flags "},
      {92, 8, "in txnSBSize "},
      {108, 8, "in resrvSize "},
      {140, 8, "in bmapSize "},
      {156, 8, "in xmapSize "},
      {188, 8, "in metaBmapHmapSize "},
      {204, 8, "in metaBmapBmapSize "},
      {220, 8, "in metaBmapXmapSize "},
      {124, 8, "in hmapSize "},
      {172, 8, "in dataSize "},
      {252, 1, "between ddpRatio "},
      {249, 1, "between hmapBlksPerMetaMapBit "},
      {250, 1, "between bmapBlksPerMetaMapBit "},
      {251, 1, "between xmapBlksPerMetaMapBit "},
      {253, 8, "in softReserveSize "},
      {261, 8, "in expansion1Size "},
      {269, 8, "in expansion2Size "},
      {277, 8, "in expansion2Size "},
      {285, 8, "in expansion3Size "},
      {293, 8, "in expansion3Size "},
  };
  DedupImage image({.mode = 2, .disks = 1});
  image.Seal();
  const uint64_t secondary = DedupImage::At(image.Place().secondary);
  std::string expected;
  for (const auto& c : cases) {
    const uint64_t first = Get(image.Disk(0).GetBytes(DedupImage::At(0) + c.offset, c.width).data(), c.width);
    image.Disk(0).Flip(secondary + c.offset, 1);
    const std::string format = c.offset == 0 ? "%lx, 0x%lx" : "%lu, %lu";
    char values[64];
    std::snprintf(values, sizeof values, format.c_str(), first, first ^ 2);
    expected += sample::UuidText(image.Disk(0).uuid()) + ": MetaError: Mismatch " + c.line + values + "\n";
  }
  Open(image, false);
  DDPCompareSuperBlks(disks_[0]);
  EXPECT_EQ(log_.Text(), expected);

  log_.Clear();
  Put(Buf() + 116, 8, 1ULL << 50);  // no such place
  DDPCompareSuperBlks(disks_[0]);
  EXPECT_EQ(log_.Text(), Line("Error: Failed to read dedupe secondary super block"));
}

TEST_F(SuperBlockTest, BlockHeadersNameTheirPlace) {
  for (const uint32_t mode : {1U, 2U}) {
    DedupImage image({.mode = mode, .disks = 2, .expansion = 2});
    image.StoreMixture(400, 1);
    const uint64_t lastIndex = image.Place().xmapFull - 1;  // in the expansion
    image.Store(1, lastIndex * 225, std::vector<uint8_t>(4096, 3), 1);
    Open(image);
    const struct {
      uint32_t type;
      uint64_t index, at;
    } cases[] = {
        {2, 0, DedupImage::At(1)},
        {3, 0, DedupImage::At(image.Place().bmapStart)},
        {4, 0, DedupImage::At(image.Place().hmapStart)},
        {5, 1, image.XmapAt(1)},
        {5, lastIndex, image.XmapAt(lastIndex)},
        {8, 0, DedupImage::At(image.Place().metaBmapStart[0])},
        {9, 0, DedupImage::At(image.Place().metaBmapStart[1])},
        {10, 0, DedupImage::At(image.Place().metaBmapStart[2])},
    };
    for (const auto& c : cases) {
      std::vector<uint8_t> block = image.Disk(1).GetBytes(c.at, 4096);
      const std::vector<uint8_t> whole = block;
      EXPECT_EQ(DDPIsValidBlkHdr(disks_[1], block.data(), c.type, c.index), 1U) << c.type;
      EXPECT_EQ(block, whole);
      EXPECT_EQ(DDPIsValidBlkHdr(disks_[1], block.data(), c.type + 1, c.index), 0U);
      const bool tagged = c.type != 3;
      EXPECT_EQ(DDPIsValidBlkHdr(disks_[1], block.data(), c.type, c.index + 1), tagged ? 0U : 1U) << c.type;
      // The device index counts in a group only.
      EXPECT_EQ(DDPIsValidBlkHdr(disks_[0], block.data(), c.type, c.index), tagged && mode == 2 ? 0U : 1U);
      Put(block.data() + 28, 8, 0);
      SealBlk(block.data());
      EXPECT_EQ(DDPIsValidBlkHdr(disks_[1], block.data(), c.type, c.index + 9), 1U);
      for (const uint32_t at : {0U, 20U, 16U, 4095U}) {
        std::vector<uint8_t> spoilt = whole;
        spoilt[at] ^= 1;
        if (at != 16 && at != 4095) SealBlk(spoilt.data());
        EXPECT_EQ(DDPIsValidBlkHdr(disks_[1], spoilt.data(), c.type, c.index), 0U) << at;
      }
    }
  }
}

TEST_F(SuperBlockTest, ADiskWithoutTheLayerAnswersNotSupported) {
  KABDiskCtx plain{};
  KABDiskCtx group{};
  plain.group = &group;
  std::vector<uint8_t> block(4096);
  uint64_t place = 0;
  uint8_t byte = 0;
  EXPECT_EQ(DDPValidateSuperBlk(&plain, &byte), 0U);
  EXPECT_EQ(DDPIsValidBlkHdr(&plain, block.data(), 1, 0), 0U);
  DDPCompareSuperBlks(&plain);
  EXPECT_EQ(DDPReadSecSuperBlk(&plain, block.data(), &place), KAB_NOT_SUPPORTED);
  EXPECT_EQ(DDPReadTxnSBlk(&plain, block.data(), &place), KAB_NOT_SUPPORTED);
  EXPECT_EQ(DDPReadXMapBlks(&plain, 0, 1, block.data(), &place), KAB_NOT_SUPPORTED);
  EXPECT_EQ(DDPIsPBNInUse(&plain, 0, &byte), KAB_NOT_SUPPORTED);
  EXPECT_EQ(DDPRead(&plain, block.data(), 10, 0), KAB_NOT_SUPPORTED);
  EXPECT_EQ(DDPWrite(&plain, block.data(), 10, 0), KAB_NOT_SUPPORTED);
  EXPECT_EQ(DDPDump(&plain, 10, 0), KAB_NOT_SUPPORTED);
}

}  // namespace
