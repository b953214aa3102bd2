// Capacity disks as their group sees them, against the builder's plain picture of each.

#include <algorithm>
#include <cstring>
#include <random>

#include "log_fixture.h"

using kab_test::LogTest;
using kab_test::OpenedGroup;
using sample::LoggedGroup;
using sample::LoggedGroupOptions;
using testing::HasSubstr;

namespace sample {

// By seed: not every byte of the options is a field.
static void PrintTo(const LoggedGroupOptions& options, std::ostream* out) { *out << "seed " << options.seed; }

}  // namespace sample

namespace {

struct Range {
  uint64_t offset;
  uint32_t length;
};

class PlogIoTest : public LogTest, public testing::WithParamInterface<LoggedGroupOptions> {
 protected:
  PlogIoTest() : random_(GetParam().seed + 1000), logged_(GetParam()) {
    for (uint32_t i = 0; i < GetParam().disks; ++i) pictures_.push_back(logged_.Picture(i));
  }

  // The first disks open before the replay, the others take their placeholders over after it.
  OpenedGroup OpenReplayed() {
    OpenedGroup opened;
    opened.paths = logged_.Group().Write(dir_.Path());
    Reopen(&opened);
    return opened;
  }
  void Reopen(OpenedGroup* opened) {
    opened->disks.clear();
    opened->ssd.reset(KABOpenSSD(opened->paths.ssd.c_str(), O_RDWR, 0));
    EXPECT_EQ(KABSSDLOGGetValidCheckPointRecord(opened->ssd.get()), 0U);
    const size_t before = opened->paths.disks.size() / 2;
    for (size_t i = 0; i < opened->paths.disks.size(); ++i) {
      if (i == before) {
        EXPECT_EQ(KABSSDLOGRecovPlogLog(opened->ssd.get()), 0U) << log_.Text();
      }
      opened->disks.emplace_back(KABOpenDisk(opened->paths.disks[i].c_str(), O_RDWR, opened->ssd.get(), 0));
      EXPECT_NE(opened->disks.back(), nullptr);
    }
  }

  Range PickRange() {
    const uint64_t bytes = GetParam().diskBytes;
    const uint64_t longest = random_() % 8 == 0 ? bytes : 20000;
    Range range{};
    range.offset = random_() % bytes;
    if (random_() % 2 == 0) range.offset &= ~uint64_t{511};
    range.length = static_cast<uint32_t>(random_() % std::min(longest, bytes - range.offset + 1));
    return range;
  }

  std::vector<uint8_t> Seen(KABDiskCtx* disk, Range range) {
    std::vector<uint8_t> bytes(range.length + 1, 0xA5);
    EXPECT_EQ(KABPlogRead(disk, bytes.data(), range.length, range.offset), 0U);
    EXPECT_EQ(bytes.back(), 0xA5) << "wrote past the buffer";
    bytes.pop_back();
    return bytes;
  }
  void ExpectPicture(KABDiskCtx* disk, uint32_t index, Range range) {
    const uint8_t* expected = pictures_[index].data() + range.offset;
    const std::vector<uint8_t> seen = Seen(disk, range);
    const auto at = std::mismatch(seen.begin(), seen.end(), expected).first;
    EXPECT_EQ(at, seen.end()) << "disk " << index << ", byte "
                              << range.offset + static_cast<uint64_t>(at - seen.begin());
  }

  std::mt19937_64 random_;
  LoggedGroup logged_;
  std::vector<std::vector<uint8_t>> pictures_;
};

TEST_P(PlogIoTest, ReadsAreThePicture) {
  OpenedGroup opened = OpenReplayed();
  for (uint32_t i = 0; i < opened.disks.size(); ++i) {
    ASSERT_NE(opened.disks[i]->plogState, nullptr);
    EXPECT_EQ(opened.disks[i]->plogState->owner, opened.disks[i].get());
    Bucketlist_Validate(opened.disks[i]->plogState->lbaTable.list);
    Bucketlist_Validate(&opened.disks[i]->plogState->indexMap.list);
    ExpectPicture(opened.disks[i].get(), i, {0, static_cast<uint32_t>(GetParam().diskBytes)});
    for (int k = 0; k < 2000 && !HasFailure(); ++k) ExpectPicture(opened.disks[i].get(), i, PickRange());
  }
}

TEST_P(PlogIoTest, WritesStayWhereTheyWereSent) {
  OpenedGroup opened = OpenReplayed();
  uint32_t refused = 0;
  for (int k = 0; k < 150 && !HasFailure(); ++k) {
    const auto index = static_cast<uint32_t>(random_() % opened.disks.size());
    KABDiskCtx* disk = opened.disks[index].get();
    const Range range = PickRange();
    std::vector<uint8_t> bytes(range.length);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random_());
    log_.Clear();
    const uint32_t st = KABPlogWrite(disk, bytes.data(), range.length, range.offset);
    auto picture = pictures_[index].begin() + static_cast<ptrdiff_t>(range.offset);
    if (st == 0) {
      std::copy(bytes.begin(), bytes.end(), picture);
    } else {
      // Refused at a piece logged as zeros: what stood in front of it is written, nothing behind it.
      ASSERT_EQ(st, 7U);
      ++refused;
      EXPECT_EQ(log_.Text(), "Error: Failed to do plog write, encountered zero writes at plog\n");
      const std::vector<uint8_t> seen = Seen(disk, range);
      const auto written = std::mismatch(seen.begin(), seen.end(), bytes.begin()).first - seen.begin();
      ASSERT_LT(static_cast<uint64_t>(written), seen.size());
      EXPECT_EQ(seen[static_cast<size_t>(written)], 0);
      std::copy_n(bytes.begin(), written, picture);
    }
    ExpectPicture(disk, index, range);
  }
  if (GetParam().seed <= 3) {  // the others have most of their zeros overwritten
    EXPECT_GT(refused, 0U);
  }
  Reopen(&opened);
  for (uint32_t i = 0; i < opened.disks.size(); ++i) {
    ExpectPicture(opened.disks[i].get(), i, {0, static_cast<uint32_t>(GetParam().diskBytes)});
  }
}

// What is dumped of both disks is enough to see the dumped ranges again in a group that lost all its data.
TEST_P(PlogIoTest, DumpsHoldWhatReadsNeed) {
  const uint32_t index = GetParam().disks - 1;
  OpenedGroup opened = OpenReplayed();
  KABDiskCtx* disk = opened.disks[index].get();
  std::vector<Range> ranges;
  for (int k = 0; k < 40; ++k) ranges.push_back(PickRange());

  EXPECT_EQ(KABPlogDump(disk, 100, 0), 12U);  // no dump file
  KABDumpCtx* dumps[2];
  KABDiskCtx* sources[2] = {opened.ssd.get(), disk};
  std::string names[2] = {dir_.File("ssd.dump"), dir_.File("disk.dump")};
  for (int i = 0; i < 2; ++i) {
    dumps[i] = KABInitDumpFile(names[i].c_str(), sources[i]->path, sources[i]->diskSize);
    ASSERT_NE(dumps[i], nullptr) << log_.Text();
    KABSetDumpFile(sources[i], dumps[i]);
  }
  for (const Range& range : ranges) EXPECT_EQ(KABPlogDump(disk, range.length, range.offset), 0U);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(KABCloseDumpFile(dumps[i]), 0U);
    KABSetDumpFile(sources[i], nullptr);
    KABFree(&dumps[i]);
  }
  opened.disks.clear();
  opened.ssd.reset();

  const uint64_t dataBlk = logged_.Log().StartBlk() + logged_.Log().LengthBlks() / 2;
  logged_.Group().Ssd().Fill(sample::LogImage::BlkOffset(dataBlk), logged_.Log().LengthBlks() / 2 * 4096, 0xEE);
  logged_.Group().Disk(index).Fill(sample::kDataOffset, GetParam().diskBytes, 0xEE);
  opened.paths = logged_.Group().Write(dir_.Path());
  const std::string targets[2] = {opened.paths.ssd, opened.paths.disks[index]};
  for (int i = 0; i < 2; ++i) {
    const int from = open(names[i].c_str(), O_RDONLY);
    const int to = open(targets[i].c_str(), O_RDWR);
    EXPECT_EQ(KABExtractDumpToDisk(static_cast<uint32_t>(from), static_cast<uint32_t>(to), 0, nullptr), 0U);
    close(from);
    close(to);
  }
  Reopen(&opened);
  for (const Range& range : ranges) ExpectPicture(opened.disks[index].get(), index, range);
}

INSTANTIATE_TEST_SUITE_P(Seeds, PlogIoTest,
                         testing::Values(LoggedGroupOptions{.seed = 1}, LoggedGroupOptions{.seed = 2, .disks = 7},
                                         LoggedGroupOptions{.seed = 3, .disks = 2, .stride = 2},
                                         LoggedGroupOptions{
                                             .seed = 4, .disks = 1, .entries = 300, .diskBytes = 256 << 10},
                                         LoggedGroupOptions{.seed = 5, .disks = 2, .entries = 9000}),
                         [](const auto& test) { return "Seed" + std::to_string(test.param.seed); });

class PlogRefusalTest : public LogTest {};

TEST_F(PlogRefusalTest, NothingIsServedBeforeTheReplay) {
  plog_.Add(sample::WriteEntry(DiskUuid(0), 1, 0, 4096, {{8000, 8}}));
  image_.Write(plog_);
  OpenedGroup opened = OpenChosen(true);
  KABDiskCtx* disk = opened.disks[0].get();
  uint8_t bytes[512] = {};
  const std::string readLine = "PLOG recovery was not completed. Failing the read.\n";
  const std::string writeLine = "Error: PLOG recovery was not completed. Failing the write.\n";
  const auto refused = [&](KABDiskCtx* ctx) {
    log_.Clear();
    EXPECT_EQ(KABPlogRead(ctx, bytes, 0, 0), 2U);
    EXPECT_EQ(log_.Text(), readLine);
    log_.Clear();
    EXPECT_EQ(KABPlogWrite(ctx, bytes, 0, 0), 2U);
    EXPECT_EQ(log_.Text(), writeLine);
  };
  refused(disk);
  ASSERT_EQ(KABSSDLOGRecovPlogLog(opened.ssd.get()), 0U);
  EXPECT_EQ(KABPlogRead(disk, bytes, 512, 0), 0U);

  // Closed after the replay, a disk has given its part of it up, and says so when it is opened again.
  opened.disks[0].reset();
  opened.disks[0].reset(KABOpenDisk(opened.paths.disks[0].c_str(), O_RDWR, opened.ssd.get(), 0));
  refused(opened.disks[0].get());
  log_.Clear();
  EXPECT_EQ(KABPlogDump(opened.disks[0].get(), 512, 0), 2U);
  EXPECT_EQ(KABPlogRead(opened.disks[1].get(), bytes, 512, 0), 0U);  // its neighbour has no state and needs none

  kab_test::OpenedDisk alone(KABOpenDisk(opened.paths.disks[1].c_str(), O_RDWR, nullptr, 0));
  if (alone != nullptr) refused(alone.get());
}

TEST_F(PlogRefusalTest, FailingPiecesEndARequest) {
  // [4096, 8192) lies where the SSD has nothing.
  plog_.Add(sample::WriteEntry(DiskUuid(0), 1, 4096, 4096, {{1ULL << 40, 8}}));
  plog_.Add(sample::WriteEntry(DiskUuid(0), 2, 8192, 4096, {{sample::kZeroSector, 8}}));
  image_.Write(plog_);
  OpenedGroup opened = OpenChosen(true);
  KABDiskCtx* disk = opened.disks[0].get();
  ASSERT_EQ(KABSSDLOGRecovPlogLog(opened.ssd.get()), 0U);
  std::vector<uint8_t> bytes(12288, 0x5A);
  EXPECT_EQ(KABPlogRead(disk, bytes.data(), 12288, 0), 1U);
  EXPECT_EQ(bytes[0], 0);
  EXPECT_EQ(bytes[8192], 0x5A);
  EXPECT_EQ(KABPlogRead(disk, bytes.data(), 512, ~uint64_t{0}), 1U);
  EXPECT_EQ(KABPlogRead(disk, bytes.data(), 512, ~uint64_t{0} - sample::kDataOffset), 1U);
  EXPECT_EQ(KABPlogRead(disk, bytes.data(), 4096, 8192), 0U);
  EXPECT_EQ(std::count(bytes.begin(), bytes.begin() + 4096, 0), 4096);
}

// The SSD of a group with one shared state holds that state itself, and is no disk of the group.
TEST_F(PlogRefusalTest, AnSsdHasNoPlogOfItsOwn) {
  Ssd().DedupMode(2);
  plog_.Add(sample::WriteEntry(DiskUuid(0), 1, 0, 4096, {{8000, 8}}));
  image_.Write(plog_);
  OpenedGroup opened = OpenChosen();
  KABDiskCtx* ssd = opened.ssd.get();
  ASSERT_EQ(KABSSDLOGRecovPlogLog(ssd), 0U);
  ASSERT_NE(ssd->plogState, nullptr);
  KABDumpCtx* dump = KABInitDumpFile(dir_.File("ssd.dump").c_str(), ssd->path, ssd->diskSize);
  ASSERT_NE(dump, nullptr);
  KABSetDumpFile(ssd, dump);
  const uint64_t logged = 0 - (static_cast<uint64_t>(ssd->devIdx) << 50U);  // the key of the entry's range
  EXPECT_NE(KABPlogDump(ssd, 4096, logged), 0U);                            // it has no packed blocks either
  KABSetDumpFile(ssd, nullptr);
  EXPECT_EQ(KABCloseDumpFile(dump), 0U);
  KABFree(&dump);
}

}  // namespace
