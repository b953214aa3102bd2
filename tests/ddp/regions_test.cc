// The readers and writers of the regions, the hash map's placement, and the bitmap's bits.

#include <openssl/evp.h>

#include "ddp/dedup_fixture.h"
#include "support/fault_shim.h"

namespace {

using kab_test::DedupImage;
using kab_test::Shape;
using testing::HasSubstr;

class RegionsTest : public kab_test::DedupTest {
 protected:
  // Bytes of a disk as they lie on the file.
  std::vector<uint8_t> OnDisk(uint32_t disk, uint64_t offset, uint64_t length) {
    std::vector<uint8_t> bytes(length);
    EXPECT_EQ(pread(disks_[disk]->fd, bytes.data(), length, static_cast<off_t>(offset)), static_cast<ssize_t>(length));
    return bytes;
  }
};

TEST_F(RegionsTest, EveryReaderFindsItsRegion) {
  DedupImage image({.mode = 2, .disks = 2, .diskSize = 80ULL << 20, .expansion = 4});
  const DedupImage::Layout at = image.Place();
  for (uint32_t blk = 1; blk < at.dataStart + 8; ++blk) image.Disk(1).FillNoise(DedupImage::At(blk), 4096, blk);
  Open(image, false);
  KABDiskCtx* disk = disks_[1];
  std::vector<uint8_t> buf(8192);
  uint64_t loc = 0;
  const auto expect = [&](const char* name, uint32_t st, uint64_t blk, uint64_t count, bool tellsPlace = true) {
    EXPECT_EQ(st, KAB_OK) << name;
    if (tellsPlace) {
      EXPECT_EQ(loc, DedupImage::At(blk)) << name;
    }
    EXPECT_EQ(std::memcmp(buf.data(), OnDisk(1, DedupImage::At(blk), count * 4096).data(), count * 4096), 0) << name;
    std::fill(buf.begin(), buf.end(), uint8_t{0});
    loc = 0;
  };
  const uint64_t second = at.hmapStart + at.hmapSize;
  expect("txnSB", DDPReadTxnSBlk(disk, buf.data(), &loc), 1, 1);
  expect("compression txnSB", CompressionReadTxnBlk(disk, buf.data(), &loc), 2, 1);
  expect("secondary SB", DDPReadSecSuperBlk(disk, buf.data(), &loc), second, 1);
  expect("hmap", DDPReadHashMapBlks(disk, 3, 2, buf.data(), &loc), at.hmapStart + 3, 2);
  expect("bmap", DDPReadBitmapBlks(disk, 1, 1, buf.data(), &loc), at.bmapStart + 1, 1);
  for (uint32_t map = 0; map < 3; ++map) {
    expect("map bitmap", DDPReadMapBitmapBlks(disk, 0, 1, 8 + map, buf.data()), at.metaBmapStart[map], 1, false);
    expect("second map bitmap", DDPReadSecMapBitmapBlks(disk, 0, 1, 8 + map, buf.data()),
           second + at.metaBmapStart[map], 1, false);
  }
  expect("xmap", DDPReadXMapBlks(disk, 7, 2, buf.data(), &loc), at.xmapStart + 7, 2);
  expect("xmap expansion", DDPReadXMapBlks(disk, at.xmapSize, 1, buf.data(), &loc), at.dataStart, 1);
  expect("second xmap", DDPReadSecXMapBlks(disk, 7, 2, buf.data(), &loc), second + at.xmapStart + 7, 2);
  expect("second xmap expansion", DDPReadSecXMapBlks(disk, at.xmapSize + 1, 1, buf.data(), &loc), at.dataStart + 4 + 1,
         1);
  expect("second bmap", DDPReadSecBitmapBlks(disk, 1, 1, buf.data(), &loc), second + at.bmapStart + 1, 1);
  expect("low 20 bits of a count", DDPReadMetadataBlks(disk, 1, 0, (1U << 20) + 2, 2, buf.data(), &loc), second + 1, 2);

  const std::pair<uint32_t, uint64_t> seconds[] = {{2, 1},
                                                   {3, at.bmapStart},
                                                   {4, at.hmapStart},
                                                   {8, at.metaBmapStart[0]},
                                                   {9, at.metaBmapStart[1]},
                                                   {10, at.metaBmapStart[2]}};
  for (uint32_t type = 0; type < 20; ++type) {
    const auto* known = std::find_if(std::begin(seconds), std::end(seconds), [&](auto& s) { return s.first == type; });
    const bool found = known != std::end(seconds);
    EXPECT_EQ(DDPGetSecMetadataBlkOffset(disk, 0, 5, 1, type, &loc), found ? KAB_OK : KAB_INVALID_ARGUMENT) << type;
    if (found) {
      EXPECT_EQ(loc, DedupImage::At(second + known->second + 5));
    }
    if (type < 8 || type > 10) {
      EXPECT_EQ(DDPReadMapBitmapBlks(disk, 0, 1, type, buf.data()), KAB_INVALID_ARGUMENT);
    }
  }
  EXPECT_EQ(DDPReadSecXMapBlks(disk, at.xmapSize - 1, 2, buf.data(), &loc), KAB_INVALID_ARGUMENT);
  // A map larger than its start refuses what runs past its end.
  ASSERT_GT(at.xmapSize, at.xmapStart);
  EXPECT_EQ(DDPReadXMapBlks(disk, at.xmapSize - 1, 2, buf.data(), &loc), KAB_INVALID_ARGUMENT);
  EXPECT_EQ(DDPReadHashMapBlks(disk, ~0ULL, 1, buf.data(), &loc), KAB_IO_ERROR);
  EXPECT_EQ(DDPReadHashMapBlks(disk, 1ULL << 51, 1, buf.data(), &loc), KAB_IO_ERROR);
  EXPECT_EQ(log_.Text(), "");
}

TEST_F(RegionsTest, WritersReachTheirRegionAndNothingElse) {
  DedupImage image({.mode = 2, .disks = 1, .expansion = 2});
  Open(image);
  const DedupImage::Layout at = image.Place();
  std::vector<uint8_t> expected = kab_test::ReadFile(paths_.disks[0]);
  std::vector<uint8_t> block(4096, 0xA5);
  const auto put = [&](uint64_t blk) {
    std::fill_n(expected.begin() + static_cast<ptrdiff_t>(DedupImage::At(blk)), 4096, uint8_t{0xA5});
  };
  EXPECT_EQ(DDPWriteHashMapBlks(disks_[0], 2, 1, block.data()), KAB_OK);
  put(at.hmapStart + 2);
  EXPECT_EQ(DDPWriteBitmapBlks(disks_[0], 0, 1, block.data()), KAB_OK);
  put(at.bmapStart);
  EXPECT_EQ(DDPWriteXMapBlks(disks_[0], at.xmapSize, 1, block.data()), KAB_OK);  // not redirected
  put(at.xmapStart + at.xmapSize);
  EXPECT_EQ(DDPWriteXMapBlks(disks_[0], ~0ULL, 1, block.data()), KAB_IO_ERROR);
  EXPECT_EQ(kab_test::ReadFile(paths_.disks[0]), expected);
}

TEST_F(RegionsTest, HashIndexesAreDealtOut) {
  DedupImage image({.mode = 2, .disks = 3});
  Open(image);
  const uint64_t h = image.Place().hmapSize;
  uint32_t dev = 99;
  uint64_t blk = 99;
  uint32_t slot = 99;
  DDPMapHashIndexToDev(ssd_, 128 * 5 + 5, &dev, &blk, &slot);  // no statistics yet
  EXPECT_EQ(std::make_tuple(dev, blk, slot), std::make_tuple(0U, 0UL, 5U));
  DDPUpdateBlkStatsForDG(ssd_);
  const uint64_t global = 2 * h + 3;
  DDPMapHashIndexToDev(ssd_, 128 * global + 117, &dev, &blk, &slot);
  EXPECT_EQ(std::make_tuple(dev, blk, slot), std::make_tuple(2U, 3UL, 117U));
  DDPMapHashIndexToDev(ssd_, 0x1FFFFFFFFFEULL << 7 | 1, &dev, &blk, &slot);
  EXPECT_EQ(slot, 1U);
  DDPMapHashIndexToDev(ssd_, 0x1FFFFFFFFFFULL << 7 | 2, &dev, &blk, &slot);
  EXPECT_EQ(slot, 1U);  // left alone

  std::vector<uint8_t> block(4096);
  uint64_t loc = 0;
  EXPECT_EQ(DDPReadHashMapBlkByIndex(ssd_, 128 * global, block.data(), &dev, &blk, &slot, &loc), KAB_OK);
  EXPECT_EQ(loc, DedupImage::At(image.Place().hmapStart + 3));
  EXPECT_EQ(block, OnDisk(2, loc, 4096));
  block[4000] ^= 1;
  EXPECT_EQ(DDPWriteHashMapBlkByIndex(ssd_, 128 * global, block.data()), KAB_OK);
  EXPECT_EQ(OnDisk(2, loc, 4096), block);

  CloseDisk(2);
  EXPECT_EQ(DDPReadHashMapBlkByIndex(ssd_, 128 * global, block.data(), &dev, &blk, &slot, &loc), KAB_NOT_MAPPED);
  EXPECT_EQ(DDPWriteHashMapBlkByIndex(ssd_, ~0ULL, block.data()), KAB_NOT_MAPPED);
  EXPECT_THAT(log_.Text(), HasSubstr("Error: Could not find device with idx 2\n"));
}

TEST_F(RegionsTest, EveryStoredHashIsFound) {
  DedupImage image({.mode = 2, .disks = 3});
  image.StoreMixture(60, 4);
  Open(image);
  DDPUpdateBlkStatsForDG(ssd_);
  uint64_t hashIndex = 0;
  uint32_t dev = 0;
  uint64_t blk = 0;
  uint32_t slot = 0;
  uint8_t entry[34];
  uint8_t hash[20];
  uint32_t lookups = 0;
  for (uint32_t disk = 0; disk < 3; ++disk) {
    const std::vector<uint8_t> plain = image.Plain(disk);
    for (size_t at = 0; at < plain.size(); at += 4096, ++lookups) {
      unsigned size = 0;
      EVP_Digest(plain.data() + at, 4096, hash, &size, EVP_sha1(), nullptr);
      ASSERT_EQ(DDPLookupHash(ssd_, hash, &hashIndex, &dev, &blk, &slot, entry), KAB_OK);
      EXPECT_EQ(hashIndex, slot | (dev * image.Place().hmapSize + blk) << 7);
      const uint64_t place = DedupImage::At(image.Place().hmapStart + blk) + 50 + 34 * slot;
      EXPECT_EQ(image.Disk(dev).GetBytes(place, 34), std::vector<uint8_t>(entry, entry + 34));
      EXPECT_EQ(std::memcmp(entry, hash, 20), 0);
    }
  }
  EXPECT_GT(lookups, 100U);
  hash[3] ^= 1;
  EXPECT_EQ(DDPLookupHash(ssd_, hash, &hashIndex, &dev, &blk, &slot, entry), KAB_NOT_FOUND);
  EXPECT_EQ(log_.Text(), "");

  ASSERT_EQ(DDPGetHashBlockFromHash(ssd_, hash, &dev, &blk, &hashIndex), KAB_OK);
  const int fd = std::exchange(disks_[dev]->fd, -1);
  EXPECT_EQ(DDPLookupHash(ssd_, hash, &hashIndex, &dev, &blk, &slot, entry), KAB_IO_ERROR);
  EXPECT_EQ(log_.Text(), std::string(disks_[dev]->uuidText) + ": Error: Failed to read hmap blk: IO Error\n");
  disks_[dev]->fd = fd;
}

TEST_F(RegionsTest, BitsFollowThePbn) {
  DedupImage image({.mode = 2, .disks = 2, .diskSize = 80ULL << 20});
  image.StoreMixture(20, 2);
  Open(image);
  const DedupImage::Layout at = image.Place();
  const struct {
    uint32_t type;
    uint64_t number, bit;
  } cases[] = {{7, at.dataStart + 33000, 33000},
               {7, at.dataStart + 1, 1},
               {2, 1 + 9, 9},
               {3, at.bmapStart + 40, 40},
               {4, at.hmapStart + 41, 41},
               {5, at.xmapStart + 42, 42},
               {5, at.dataStart + 43, 43},
               {8, at.metaBmapStart[0] + 44, 44},
               {9, at.metaBmapStart[1] + 45, 45},
               {10, at.metaBmapStart[2] + 46, 46},
               {6, 47, 47}};
  for (const auto& c : cases) {
    const uint64_t pbn = uint64_t{1} << 44 | uint64_t{c.type} << 40 | c.number;
    const bool before = image.InUse(0, c.bit);
    uint8_t inUse = 9;
    EXPECT_EQ(DDPIsPBNInUse(disks_[0], pbn, &inUse), KAB_OK);
    EXPECT_EQ(inUse, before ? 1 : 0) << c.type;
    for (const bool set : {!before, before}) {
      std::vector<uint8_t> expected = OnDisk(0, DedupImage::At(0), at.dataStart * 4096);
      uint8_t* blk = expected.data() + (at.bmapStart + c.bit / 32448) * 4096;
      blk[40 + c.bit % 32448 / 8] ^= static_cast<uint8_t>(1U << (c.bit % 32448 % 8));
      SealBlk(blk);
      EXPECT_EQ(DDPMarkPBNInBitmap(disks_[0], pbn, set ? 1 : 0), KAB_OK);
      EXPECT_TRUE(OnDisk(0, DedupImage::At(0), at.dataStart * 4096) == expected) << c.type;
      // The layout is the named member's, the bit is in the bitmap of the disk asked.
      EXPECT_EQ(DDPIsPBNInUse(disks_[0], pbn, &inUse), KAB_OK);
      EXPECT_EQ(inUse, set ? 1 : 0);
    }
  }

  // Nothing is written for a bit that is so already: a disk that refuses writes does not mind.
  const int writable = disks_[0]->fd;
  disks_[0]->fd = open(paths_.disks[0].c_str(), O_RDONLY);
  const uint64_t used = uint64_t{1} << 44 | uint64_t{7} << 40 | at.dataStart;
  EXPECT_EQ(DDPMarkPBNInBitmap(disks_[0], used, 1), KAB_OK);
  EXPECT_EQ(log_.Text(), "");
  EXPECT_EQ(DDPMarkPBNInBitmap(disks_[0], used, 0), KAB_IO_ERROR);
  EXPECT_EQ(log_.Text(), std::string(disks_[0]->uuidText) + ": Error: Failed to write bitmap block 0\n");
  close(disks_[0]->fd);
  disks_[0]->fd = writable;

  // Half a block is no success either.
  log_.Clear();
  KabFaultPlan("pwrite@1=short", nullptr);
  EXPECT_EQ(DDPMarkPBNInBitmap(disks_[0], used, 0), KAB_IO_ERROR);
  KabFaultPlan(nullptr, nullptr);
  EXPECT_EQ(log_.Text(), std::string(disks_[0]->uuidText) + ": Error: Failed to write bitmap block 0\n");

  log_.Clear();
  uint8_t inUse = 0;
  EXPECT_EQ(DDPIsPBNInUse(disks_[0], uint64_t{5} << 44, &inUse), KAB_NOT_MAPPED);
  EXPECT_EQ(DDPMarkPBNInBitmap(disks_[0], uint64_t{7} << 40 | 3, 1), KAB_IO_ERROR);  // below the data region
  EXPECT_THAT(log_.Text(), HasSubstr("Failed to read bitmap block"));
}

}  // namespace
