// The zero block's entry, in a group and on a compression-only disk.

#include "ddp/dedup_fixture.h"

namespace {

using kab_test::DedupImage;

class ZeroBlockTest : public kab_test::DedupTest {};

TEST_F(ZeroBlockTest, AGroupNotesItsEntryInEveryContext) {
  DedupImage image({.mode = 2, .disks = 3});
  Open(image);
  DDPUpdateBlkStatsForDG(ssd_);
  uint32_t dev = 0;
  uint64_t blk = 0;
  uint32_t slot = 99;
  uint32_t value = 0;

  // With a member missing nothing is noted.
  const std::string path = paths_.disks[1];
  CloseDisk(1);
  EXPECT_EQ(KABDDPPopulateZeroBlkDetails(ssd_, &dev, &blk, &slot, &value), KAB_GENERAL_FAILURE);
  EXPECT_EQ(log_.Text(), std::string(ssd_->uuidText) +
                             ": Error: All capacity devices are not opened, cannot update zero blk details.\n");
  EXPECT_EQ(ssd_->dedupCtx.zeroPbn, 0U);
  disks_[1] = KABOpenDisk(path.c_str(), O_RDWR, ssd_, 0);
  ASSERT_NE(disks_[1], nullptr);
  log_.Clear();

  EXPECT_EQ(KABDDPPopulateZeroBlkDetails(ssd_, &dev, &blk, &slot, &value), KAB_OK);
  EXPECT_EQ(slot, 0U);  // the first entry of its block
  EXPECT_EQ(value, 1U);
  const uint64_t hashIndex = (dev * image.Place().hmapSize + blk) << 7;
  for (const KABDiskCtx* ctx : {ssd_, disks_[0], disks_[1], disks_[2]}) {
    EXPECT_EQ(ctx->dedupCtx.zeroHashIdx, hashIndex);
    EXPECT_EQ(ctx->dedupCtx.zeroPbn, uint64_t{7} << 40 | image.Place().dataStart);
    EXPECT_EQ(ctx->dedupCtx.zeroBlkTag, 0x4000);
  }
  EXPECT_EQ(log_.Text(), "");

  std::vector<uint8_t> block(4096);
  ASSERT_EQ(DDPWriteHashMapBlks(disks_[dev], blk, 1, block.data()), KAB_OK);
  EXPECT_EQ(KABDDPPopulateZeroBlkDetails(ssd_, &dev, &blk, &slot, &value), KAB_NOT_FOUND);
  EXPECT_EQ(log_.Text(), std::string(ssd_->uuidText) + ": Failed to find zero hash PBN: Not found\n");
  EXPECT_EQ(ssd_->dedupCtx.zeroBlkTag, 0x4000);
}

TEST_F(ZeroBlockTest, ACompressionOnlyDiskLooksAtTheLastEntryAlone) {
  DedupImage image({.mode = 1, .disks = 1});
  Open(image);
  EXPECT_EQ(KABCompressionPopulateZeroBlkDetails(disks_[0]), KAB_OK);
  EXPECT_EQ(disks_[0]->dedupCtx.zeroHashIdx, 118U);
  EXPECT_EQ(disks_[0]->dedupCtx.zeroPbn, uint64_t{7} << 40 | image.Place().dataStart);
  EXPECT_EQ(disks_[0]->dedupCtx.zeroBlkTag, 77);
  EXPECT_EQ(log_.Text(), "");

  std::vector<uint8_t> block(4096);
  ASSERT_EQ(DDPReadHashMapBlks(disks_[0], 0, 1, block.data(), nullptr), KAB_OK);
  std::copy_n(block.begin() + 50 + 118 * 34, 34, block.begin() + 50 + 117 * 34);
  std::fill_n(block.begin() + 50 + 118 * 34, 34, uint8_t{0});
  ASSERT_EQ(DDPWriteHashMapBlks(disks_[0], 0, 1, block.data()), KAB_OK);
  EXPECT_EQ(KABCompressionPopulateZeroBlkDetails(disks_[0]), KAB_NOT_FOUND);
  EXPECT_EQ(log_.Text(), std::string(disks_[0]->uuidText) + ": Failed to find zero hash PBN\n");

  log_.Clear();
  const int fd = std::exchange(disks_[0]->fd, -1);
  EXPECT_EQ(KABCompressionPopulateZeroBlkDetails(disks_[0]), KAB_IO_ERROR);
  EXPECT_EQ(log_.Text(), std::string(disks_[0]->uuidText) + ": Error: Failed to read zero hash blk: IO Error\n");
  disks_[0]->fd = fd;
}

}  // namespace
