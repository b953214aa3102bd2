// Reads and dumps through the translation map, against the builder's picture of the logical bytes.

#include "ddp/dedup_fixture.h"
#include "kab/dump.h"

namespace {

using kab_test::DedupImage;
using kab_test::Shape;
using testing::HasSubstr;

class PackedBlockTest : public kab_test::DedupTest {
 protected:
  std::string Name(uint32_t disk) { return disks_[disk]->uuidText; }

  // The group's records in the order the builder stored them: [disk, block].
  static std::vector<uint8_t> RecordOf(DedupImage& image, uint32_t disk, uint64_t blk) {
    return image.Disk(disk).GetBytes(image.EntryAt(blk) + 8, 10);
  }
};

std::vector<uint8_t> Noise(uint64_t seed) {
  std::mt19937_64 random(seed);
  std::vector<uint8_t> block(4096);
  for (uint8_t& byte : block) byte = static_cast<uint8_t>(random());
  return block;
}

TEST_F(PackedBlockTest, RandomRangesReadAsTheLogicalBytes) {
  const Shape shapes[] = {{.mode = 1, .disks = 2},
                          {.mode = 1, .disks = 1, .mdr = false, .hashMap = false},
                          {.mode = 2, .disks = 3, .expansion = 50},
                          {.mode = 2, .disks = 7, .mapBitmaps = false}};
  for (const Shape& shape : shapes) {
    DedupImage image(shape);
    image.StoreMixture(300, shape.disks);
    for (uint32_t disk = 0; disk < shape.disks; ++disk) {
      // The last block of the map, hence of its expansion where there is one.
      image.Store(disk, image.Place().xmapFull * 225 - 1, Noise(disk), disk);
    }
    Open(image);
    std::mt19937_64 random(9);
    for (uint32_t disk = 0; disk < shape.disks; ++disk) {
      const std::vector<uint8_t> plain = image.Plain(disk);
      for (int round = 0; round < 200; ++round) {
        const uint64_t span = round % 4 == 0 ? plain.size() : 300 * 4096;
        const uint64_t at = random() % span;
        const auto length =
            static_cast<uint32_t>(std::min<uint64_t>(random() % (round % 3 == 0 ? 200000 : 9000), plain.size() - at));
        std::vector<uint8_t> buf(length, 0xEE);
        ASSERT_EQ(DDPRead(disks_[disk], buf.data(), length, at), KAB_OK) << log_.Text();
        ASSERT_TRUE(std::equal(buf.begin(), buf.end(), plain.begin() + static_cast<ptrdiff_t>(at))) << at;
      }
    }
    EXPECT_EQ(log_.Text(), "");
  }
}

TEST_F(PackedBlockTest, UntrustedMapBlocksReadAsZeros) {
  for (const uint32_t at : {0U, 20U}) {  // magic, owner
    DedupImage image({.mode = 2, .disks = 1});
    image.Store(0, 0, Noise(1), 0);
    image.Store(0, 225, Noise(2), 0);
    image.Seal();
    image.Disk(0).Flip(image.XmapAt(0) + at, 3);
    image.Disk(0).Flip(image.XmapAt(1) + 17, 3);  // the checksum is not looked at
    Open(image, false);
    std::vector<uint8_t> buf(10, 1);
    EXPECT_EQ(DDPRead(disks_[0], buf.data(), 10, 4090), KAB_OK);
    EXPECT_EQ(buf, std::vector<uint8_t>(10, 0));
    buf.resize(4096);
    EXPECT_EQ(DDPRead(disks_[0], buf.data(), 4096, 225 * 4096), KAB_OK);
    EXPECT_EQ(buf, Noise(2));
    EXPECT_EQ(log_.Text(), "");
  }
}

TEST_F(PackedBlockTest, BrokenRecordsAndUnitsAreTold) {
  DedupImage image({.mode = 2, .disks = 3});
  const std::vector<uint8_t> text(4096, 'x');
  image.Store(0, 0, text, 1);
  image.Store(0, 1, Noise(1), 2);
  image.Store(0, 2, text, 1);
  image.Seal();
  const std::vector<uint8_t> packed = RecordOf(image, 0, 0);
  const std::vector<uint8_t> raw = RecordOf(image, 0, 1);
  Open(image, false);
  const std::string member1 = Name(1);
  const std::string member2 = Name(2);
  std::vector<uint8_t> buf(4096);

  struct Case {
    const char* name;
    std::vector<uint8_t> record;
    uint32_t status;
    std::string lines;
  };
  const auto with = [](std::vector<uint8_t> record, uint32_t at, uint8_t value) {
    record[at] = value;
    return record;
  };
  const uint64_t dataStart = image.Place().dataStart;
  std::vector<Case> cases = {
      {"whole", packed, KAB_OK, ""},
      {"no such member", with(packed, 0, 0x97), KAB_NOT_MAPPED, "Error: Could not find device with idx 9\n"},
      {"first unit beyond the disk", with(packed, 5, 0xF1), KAB_IO_ERROR,
       member1 + ": Error: Failed to read data from PBN1\n"},
      {"second unit beyond the disk", with(raw, 9, 0x33), KAB_IO_ERROR,
       member2 + ": Error: Failed to read data from PBN2\n"},
  };
  std::vector<uint8_t> below = packed;
  Put(below.data() + 1, 4, dataStart - 1);
  char line[128];
  std::snprintf(line, sizeof line, ": MetaError: PBN 0x%lx lies outside the data region\n",
                uint64_t{1} << 44 | uint64_t{7} << 40 | (dataStart - 1));
  cases.push_back({"unit in the metadata", below, KAB_BLOCK_INVALID,
                   member1 + line + member1 + ": Error: Failed to read data from PBN1\n"});
  for (const Case& c : cases) {
    log_.Clear();
    EXPECT_EQ(DDPReadFromPackedPBN(disks_[0], c.record.data(), buf.data()), c.status) << c.name;
    EXPECT_EQ(log_.Text(), c.lines) << c.name;
    if (c.status == KAB_OK) {
      EXPECT_EQ(buf, text) << c.name;
    }
  }

  // Stored lengths: too short, past the data, and with bits that do not count.
  const uint64_t unit = Get(packed.data() + 1, 4) - dataStart;
  const auto unitAt = static_cast<off_t>(image.UnitAt(unit));
  uint8_t stored[2];
  ASSERT_EQ(pread(disks_[1]->fd, stored, 2, unitAt + 2046), 2);
  const auto right = static_cast<uint16_t>(Get(stored, 2));
  const std::pair<uint16_t, uint32_t> lengths[] = {{right, KAB_OK},
                                                   {static_cast<uint16_t>(right | 0xF800), KAB_OK},
                                                   {static_cast<uint16_t>(right - 1), KAB_DECOMPRESS_FAILED},
                                                   {static_cast<uint16_t>(0), KAB_DECOMPRESS_FAILED},
                                                   {static_cast<uint16_t>(0x7FF), KAB_DECOMPRESS_FAILED}};
  for (const auto& [length, status] : lengths) {
    Put(stored, 2, length);
    ASSERT_EQ(pwrite(disks_[1]->fd, stored, 2, unitAt + 2046), 2);
    log_.Clear();
    EXPECT_EQ(DDPRead(disks_[0], buf.data(), 4096, 0), status) << length;
    if (status != KAB_OK) {
      EXPECT_EQ(log_.Text(), member1 + ": Error: Failed to decompress data from block " + std::to_string(unit) + "\n");
    }
  }
}

TEST_F(PackedBlockTest, AMemberIndexTheGroupDoesNotHaveIsRefused) {
  DedupImage image({.mode = 2, .disks = 3});
  image.Store(0, 0, std::vector<uint8_t>(4096, 1), 0);
  image.Store(0, 1, Noise(1), 0);
  image.Disk(0).Put8(image.EntryAt(1) + 8, 0x37);
  Open(image);
  std::vector<uint8_t> buf(8192, 9);
  EXPECT_EQ(DDPRead(disks_[0], buf.data(), 8192, 0), 22U);
  EXPECT_EQ(log_.Text(), Name(0) + ": MetaError: Invalid Device idx 3 >= numDisks 3\n" + Name(0) +
                             ": Error: Failed to Read block at offset 4096\n");
  EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + 4096), std::vector<uint8_t>(4096, 1));
  log_.Clear();
  disks_[0]->dumpFile = reinterpret_cast<KABDumpCtx*>(this);  // not reached
  EXPECT_EQ(DDPDump(disks_[0], 1, 5000), 22U);
  EXPECT_THAT(log_.Text(), HasSubstr(": Error: Failed to Dump block at offset 5000\n"));
  disks_[0]->dumpFile = nullptr;

  log_.Clear();
  EXPECT_EQ(DDPRead(disks_[0], buf.data(), 4096, uint64_t{1} << 60), KAB_IO_ERROR);
  EXPECT_EQ(log_.Text(), Name(0) + ": Error: Failed to to read XMap block for translation\n");
  EXPECT_EQ(DDPRead(disks_[0], nullptr, 0, 0), KAB_OK);
  KABDiskCtx* group = std::exchange(disks_[0]->group, nullptr);
  EXPECT_EQ(DDPRead(disks_[0], buf.data(), 0, 0), KAB_NOT_SUPPORTED);
  disks_[0]->group = group;
}

TEST_F(PackedBlockTest, ADumpHoldsTheUnitsAsStored) {
  DedupImage image({.mode = 2, .disks = 2});
  image.Store(0, 0, std::vector<uint8_t>(4096, 'a'), 0);
  image.Store(0, 1, Noise(1), 0);
  image.Store(0, 3, std::vector<uint8_t>(4096, 'b'), 0);
  image.Store(0, 4, Noise(4), 1);
  Open(image);
  EXPECT_EQ(DDPDump(disks_[0], 100, 0), KAB_INVALID_ARGUMENT);
  EXPECT_EQ(DDPDump(disks_[0], 0, 0), KAB_OK);

  KABDumpCtx* dump = KABInitDumpFile(dir_.File("dump").c_str(), paths_.disks[0].c_str(), disks_[0]->diskSize);
  ASSERT_NE(dump, nullptr) << log_.Text();
  KABSetDumpFile(disks_[0], dump);
  EXPECT_EQ(DDPDump(disks_[0], 4 * 4096 - 100, 50), KAB_OK) << log_.Text();
  // A unit on a member without a dump file of its own has nowhere to go.
  log_.Clear();
  EXPECT_EQ(DDPDump(disks_[0], 1, 4 * 4096), KAB_INVALID_ARGUMENT);
  EXPECT_EQ(log_.Text(), Name(1) + ": Error: Failed to dump data from PBN1\n");
  KABSetDumpFile(disks_[0], nullptr);
  ASSERT_EQ(KABCloseDumpFile(dump), KAB_OK);
  KABFree(&dump);

  const int fd = open(dir_.File("dump").c_str(), O_RDONLY);
  const int target = open(dir_.File("target").c_str(), O_RDWR | O_CREAT, 0600);
  EXPECT_EQ(KABVerifyAndExtractDump(static_cast<uint32_t>(fd), static_cast<uint32_t>(target), 0, nullptr), KAB_OK);
  close(fd);
  close(target);
  const std::vector<uint8_t> got = kab_test::ReadFile(dir_.File("target"));
  std::vector<uint8_t> expected(got.size());
  uint64_t units = 0;
  for (const uint64_t blk : {0, 1, 3}) {
    const std::vector<uint8_t> record = RecordOf(image, 0, blk);
    const uint64_t first = (Get(record.data() + 1, 5) & 0xFFFFFFFFF) - image.Place().dataStart;
    for (uint64_t unit = first; unit < first + (blk == 1 ? 2 : 1); ++unit, ++units) {
      const std::vector<uint8_t> bytes = image.Disk(0).GetBytes(image.UnitAt(unit), 2048);
      ASSERT_LE(image.UnitAt(unit) + 2048, got.size());
      std::copy(bytes.begin(), bytes.end(), expected.begin() + static_cast<ptrdiff_t>(image.UnitAt(unit)));
    }
  }
  EXPECT_EQ(units, 4U);
  EXPECT_TRUE(got == expected);
}

}  // namespace
