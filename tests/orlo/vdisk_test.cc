// Block 0, addresses of the log areas, the registry and component superblocks.

#include <gmock/gmock.h>

#include <cstring>
#include <random>

#include "orlo/orlo_group.h"

namespace {

using kab_test::OrloGroup;
using kab_test::Untouched;
using sample::MakeUuid;
using sample::OrloImage;
using sample::UuidText;
using testing::HasSubstr;

constexpr uint64_t kData = 3145728;

TEST(Block0Test, MagicAndVersion) {
  struct Case {
    const char* magic;
    uint32_t version;
    uint32_t status;
    const char* line;
  };
  const Case cases[] = {
      {"OLRO", 6, KAB_OK, ""},
      {"OLRO", 7, KAB_OK, ""},
      {"OLRO", 5, KAB_VERSION_MISMATCH, "d: MetaError: Orlo blk0: Expected version 6 or 7, actual version 5\n"},
      {"OLRO", 8, KAB_VERSION_MISMATCH, "d: MetaError: Orlo blk0: Expected version 6 or 7, actual version 8\n"},
      {"OLRO", ~0U, KAB_VERSION_MISMATCH, "d: MetaError: Orlo blk0: Expected version 6 or 7, actual version -1\n"},
      {"", 0, KAB_MAGIC_MISMATCH, "d: MetaError: Orlo blk0: Expected magic number OLRO,actual magic number \n"},
      {"ORLO", 7, KAB_MAGIC_MISMATCH,
       "d: MetaError: Orlo blk0: Expected magic number OLRO,actual magic number ORLO\a\n"},
  };
  kab_test::LogCapture log;
  KABDiskCtx disk{};
  std::strcpy(disk.uuidText, "d");
  for (const Case& c : cases) {
    uint8_t block[96] = {};
    std::memcpy(block, c.magic, std::strlen(c.magic));
    std::memcpy(block + 4, &c.version, 4);
    EXPECT_EQ(OrloCheckBlock0(&disk, block), c.status);
    EXPECT_EQ(log.Text(), c.line);
    log.Clear();
  }
  const std::vector<uint8_t> unending(96, 'x');
  EXPECT_EQ(OrloCheckBlock0(&disk, unending.data()), KAB_MAGIC_MISMATCH);
  EXPECT_THAT(log.Text(), testing::EndsWith("number " + std::string(96, 'x') + "\n"));
}

TEST(Block0Test, IsReadOncePlogRecoveryIsComplete) {
  OrloGroup group(7);
  group.Open();
  uint64_t offset = 5;
  uint8_t block[96] = {};
  EXPECT_EQ(OrloReadBlock0(group.Disk(), block, &offset), KAB_OK);
  EXPECT_EQ(std::memcmp(block, "OLRO", 4), 0);
  EXPECT_EQ(offset, 0U);
  group.ssd->plogRecoveryComplete = 0;
  EXPECT_EQ(OrloInitDiskCTX(group.Disk()), KAB_IO_ERROR);
  const std::string name = group.Disk()->uuidText;
  EXPECT_EQ(group.log.Text(), "PLOG recovery was not completed. Failing the read.\n" + name +
                                  ": Error: Read Failed at offset 0, length 96\n" + name +
                                  ": Error: Failed to read blk0: IO Error\n");
}

TEST(LogAreaTest, AddressesAreSectorsOf48Bits) {
  OrloGroup group(7);
  auto& image = group.images.Disk(0);
  image.FillNoise(kData + 1000 * 512, 4096, 1).FillNoise(kData + 8200 * 512, 4096, 2);
  image.FillNoise(kData + 16392 * 512, 4096, 3).FillNoise(kData + 0x2000 * 512, 4096, 4);
  const auto at = [&](uint64_t lsar) { return image.GetBytes(kData + lsar * 512, 4096); };
  group.Open();
  std::vector<uint8_t> buf(4096);
  KABDiskCtx* disk = group.Disk();
  EXPECT_EQ(OrloReadSpmtVauLsar(disk, nullptr, 1000), KAB_OUT_OF_MEMORY);
  EXPECT_EQ(OrloReadSpmtVauLsar(disk, buf.data(), 0xabcd000000000000 | 1000), KAB_OK);
  EXPECT_EQ(buf, at(1000));
  EXPECT_EQ(OrloReadSpmtMtpgLsar(disk, buf.data(), 16383), KAB_OK);
  EXPECT_EQ(buf, at(8200));
  EXPECT_EQ(OrloReadSpmtMtpgLsar(disk, buf.data(), 16384), KAB_OK);
  EXPECT_EQ(buf, at(16392));
  uint64_t offset = 0;
  EXPECT_EQ(OrloReadSpmtVauLsarId(disk, buf.data(), 1, &offset), KAB_OK);
  EXPECT_EQ(buf, at(0x2000));
  EXPECT_EQ(offset, 0x2000U * 512);
  EXPECT_EQ(OrloReadSpmtVauLsarId(disk, buf.data(), 3, &offset), KAB_IO_ERROR);
  EXPECT_EQ(offset, ((2ULL << 22) | 0x2000) * 512);
}

class RegistryTest : public testing::TestWithParam<uint8_t> {
 protected:
  uint32_t Find(const std::string& uuidText, void* out) {
    EXPECT_EQ(OrloInitDiskCTX(group_.Disk()), KAB_OK);
    const auto find = GetParam() == 6 ? OrloReadVdisk : OrloReadVdiskV4Plus;
    return find(group_.Disk(), group_.Disk()->orloBlk0, uuidText.c_str(), out);
  }
  OrloImage& Orlo() { return group_.orlo[0]; }
  std::string Name() { return group_.Disk()->uuidText; }

  OrloGroup group_{GetParam()};
  std::vector<uint8_t> entry_ = Untouched(48);
};

TEST_P(RegistryTest, FindsTheFirstEntryOfAUuid) {
  for (uint32_t i = 0; i < 40; ++i) Orlo().AddVdisk(MakeUuid(500 + i % 30), {{0, 1}});
  const auto stored =
      group_.images.Disk(0).GetBytes(OrloImage::RegistryAt() + 52 + 7 * Orlo().EntrySize(), Orlo().EntrySize());
  group_.Open();
  EXPECT_EQ(Find(UuidText(MakeUuid(507)), entry_.data()), KAB_OK);
  entry_.resize(stored.size());
  EXPECT_EQ(entry_, stored);
  EXPECT_EQ(Find(UuidText(MakeUuid(999)), entry_.data()), KAB_NOT_FOUND);
  EXPECT_EQ(group_.log.Text(), "");
  EXPECT_EQ(Find("01020304-0506-0708-090a", entry_.data()), KAB_GENERAL_FAILURE);
  EXPECT_EQ(group_.log.Text(), Name() + ": Error: Invalid uuid specified\n");
}

TEST_P(RegistryTest, LooksOnlyAtWholeEntriesWithinBothLengths) {
  struct Case {
    const char* name;
    uint64_t stated;  // 0: as it is
    uint64_t buffer;
    uint32_t count;
    bool first, last;
  };
  const uint32_t entry = Orlo().EntrySize();
  const Case cases[] = {
      {"as it is", 0, 131072, 3, true, true},
      {"a count beyond the registry", 0, 131072, ~0U, true, true},
      {"a count of none", 0, 131072, 0, false, false},
      {"a short buffer", 0, 52 + 2 * entry, 3, true, false},
      {"half an entry missing", 52ULL + 3 * entry - 1, 131072, 3, true, false},
      {"no room for the count", 39, 131072, 3, false, false},
      {"an empty buffer", 0, 0, 3, false, false},
  };
  for (int i = 0; i < 3; ++i) Orlo().AddVdisk(MakeUuid(500 + static_cast<uint32_t>(i)), {{0, 1}});
  auto& image = group_.images.Disk(0);
  const sample::DiskImage sound = image;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    image = sound;
    if (c.stated != 0) image.Put64(OrloImage::RegistryAt() + 16, c.stated);
    image.Put64(kData + 72, c.buffer).Put32(OrloImage::RegistryAt() + 36, c.count);
    group_.Open();
    EXPECT_EQ(Find(UuidText(MakeUuid(500)), entry_.data()) == KAB_OK, c.first);
    EXPECT_EQ(Find(UuidText(MakeUuid(502)), entry_.data()) == KAB_OK, c.last);
    EXPECT_EQ(group_.log.Text(), "");
    group_.Close();
  }
}

TEST_P(RegistryTest, LengthsAndPlacesOutsideTheDiskAreFailedReads) {
  auto& image = group_.images.Disk(0);
  const sample::DiskImage sound = image;
  for (const uint64_t place : {image.size(), UINT64_MAX - 100, UINT64_MAX - kData + 65537, uint64_t{1} << 60}) {
    image = sound;
    image.Put64(kData + 48, place);
    group_.Open();
    EXPECT_EQ(Find(UuidText(MakeUuid(500)), entry_.data()), KAB_IO_ERROR);
    EXPECT_THAT(group_.log.Text(), HasSubstr(Name() + ": Error: Orlo xlog 1 registry read failed\n"));
    group_.Close();
  }
  image = sound;
  image.Put64(kData + 72, UINT64_MAX).Put64(OrloImage::RegistryAt() + 16, UINT64_MAX);
  image.Put32(OrloImage::RegistryAt() + 36, ~0U);
  group_.Open();
  EXPECT_EQ(Find(UuidText(MakeUuid(500)), entry_.data()), KAB_IO_ERROR);
}

TEST_P(RegistryTest, IsReadUpToTheBuffer) {
  for (uint32_t i = 0; i < 3; ++i) Orlo().AddVdisk(MakeUuid(500 + i), {{0, 1}});
  const auto stored = group_.images.Disk(0).GetBytes(OrloImage::RegistryAt(), 1000);
  const uint64_t length = 52 + 3 * Orlo().EntrySize();
  group_.Open();
  for (const uint64_t bufLength : {uint64_t{0}, uint64_t{60}, length, uint64_t{1000}}) {
    auto buf = Untouched(1000);
    EXPECT_EQ(OrloReadRegistry(group_.Disk(), buf.data(), 65536, bufLength), KAB_OK);
    auto expected = Untouched(1000);
    std::copy_n(stored.begin(), std::min(length, bufLength), expected.begin());
    EXPECT_EQ(buf, expected) << bufLength;
  }
}

TEST_P(RegistryTest, SuperBlocksAreReadAndWrittenThroughTheMap) {
  // Of these records two are the superblock's own: one lies beyond it, one is of another type, one is cut at its end.
  const std::vector<sample::OrloRun> runs = {{0, 3}, {5, 4, 2}, {1020, 9}, {1030, 2}};
  const auto& vdisk = Orlo().AddVdisk(MakeUuid(500), runs, {4, 2});
  Orlo().AddVdisk(MakeUuid(501), {{0, 3}}, {}, false);
  Orlo().AddVdisk(MakeUuid(502), {{0, 1}, {5, 2, 1, true}});
  auto expected = Untouched(ORLO_SUPERBLOCK_SIZE);
  for (const auto& [first, count] : {std::pair{0U, 3U}, std::pair{1020U, 4U}}) {
    const auto piece = Orlo().Picture(0, first * 4096ULL, count * 4096ULL);
    std::copy(piece.begin(), piece.end(), expected.begin() + first * 4096);
  }
  group_.Open();
  KABDiskCtx* disk = group_.Disk();
  ASSERT_EQ(OrloInitDiskCTX(disk), KAB_OK);
  const auto transfer = [&](uint32_t number, void* buf, uint32_t direction) {
    return OrloReadWriteComponentSuperBlockUUID(disk, disk->orloBlk0, UuidText(MakeUuid(number)).c_str(), buf,
                                                direction);
  };
  auto buf = Untouched(ORLO_SUPERBLOCK_SIZE);
  EXPECT_EQ(transfer(500, buf.data(), 1), KAB_OK);
  EXPECT_EQ(buf, expected);

  std::mt19937_64 random(3);
  for (uint8_t& byte : buf) byte = static_cast<uint8_t>(random());
  EXPECT_EQ(transfer(500, buf.data(), 0), KAB_OK);
  auto again = Untouched(ORLO_SUPERBLOCK_SIZE);
  EXPECT_EQ(transfer(500, again.data(), 1), KAB_OK);
  EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + 3 * 4096, again.begin()));
  EXPECT_TRUE(std::equal(buf.begin() + 1020 * 4096, buf.end(), again.begin() + 1020 * 4096));
  const auto stored = group_.DiskBytes(0);
  const uint64_t afterCut = OrloImage::BlockAt(vdisk.runs[2].physical + 4);
  EXPECT_EQ(std::memcmp(stored.data() + afterCut, Orlo().Picture(0, 1024 * 4096, 4096).data(), 4096), 0);
  EXPECT_EQ(group_.log.Text(), "");

  auto untouched = Untouched(ORLO_SUPERBLOCK_SIZE);
  EXPECT_EQ(transfer(501, untouched.data(), 1), KAB_NO_SUPERBLOCK);
  EXPECT_EQ(untouched, Untouched(ORLO_SUPERBLOCK_SIZE));
  EXPECT_EQ(transfer(777, untouched.data(), 1), KAB_NOT_FOUND);
  EXPECT_EQ(group_.log.Text(), Name() + ": Error: Orlo vdisk Read failed\n");
  group_.log.Clear();
  EXPECT_EQ(transfer(502, untouched.data(), 1), KAB_IO_ERROR);  // a hole reads from a place beyond every disk
  EXPECT_EQ(group_.log.Text(), Name() + ": Error: Read Failed at offset 144115188075855360, length 8192\n" + Name() +
                                   ": Error: ZOLT Superblock data read failed\n" + Name() +
                                   ": Error: Orlo ZOLT Comp Superblock read failed for vdiskID 3\n");
}

INSTANTIATE_TEST_SUITE_P(Versions, RegistryTest, testing::Values(uint8_t{6}, uint8_t{7}, uint8_t{20}));

}  // namespace
