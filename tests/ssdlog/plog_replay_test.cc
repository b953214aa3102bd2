// Replay into tables: against a plain model, entry kinds and size classes, and everything that makes it give up.

#include <cstring>
#include <map>
#include <random>
#include <set>

#include "log_fixture.h"

using kab_test::LogTest;
using kab_test::OpenedGroup;
using sample::BareEntry;
using sample::LogExtent;
using sample::LogImage;
using sample::ReleaseEntry;
using sample::WriteEntry;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr uint64_t kLsnMask = (uint64_t{1} << 55U) - 1;

// The tables by the book, slowly: ranges by start, a scan where the library searches.
struct Model {
  struct Range {
    uint64_t start, end, lsn, address, sizeClass;
    bool operator==(const Range&) const = default;
  };
  std::map<uint64_t, Range> ranges;
  std::map<uint64_t, uint64_t> lsns;  // to LBA
  uint64_t longest = 0;
  uint32_t writes = 0, releases = 0;

  static uint64_t SizeClass(uint64_t length) {
    if (length > 262144) return 0;
    if (length > 131072) return 1;
    if (length > 65536) return 2;
    if (length > 16384) return 3;
    if (length > 8192) return 4;
    if (length > 4096) return 5;
    return length == 4096 ? 7 : 6;
  }

  void Cut(uint64_t start, uint64_t end) {
    std::map<uint64_t, Range> kept;
    for (const auto& [at, r] : ranges) {
      if (r.end <= start || r.start >= end) {
        kept[at] = r;
        continue;
      }
      const uint64_t from = std::max(start, r.start);
      const uint64_t to = std::min(end, r.end);
      if (to - from == 4096 && r.sizeClass == 7) lsns.erase(r.lsn);
      if (r.start < from) kept[r.start] = {r.start, from, r.lsn, r.address, r.sizeClass};
      if (to < r.end) kept[to] = {to, r.end, r.lsn, r.address + (to - r.start), r.sizeClass};
    }
    ranges = kept;
  }

  void Write(uint64_t lsn, uint64_t lba, uint64_t length, const std::vector<LogExtent>& extents) {
    longest = std::max(longest, length);
    ++writes;
    lsns[lsn] = lba;
    bool fold = true;
    for (size_t i = 0; i < extents.size();) {
      const LogExtent& first = extents[i];
      uint64_t run = first.sectors * 512ULL;
      for (++i; fold && i < extents.size(); ++i) {
        if (extents[i].sector != first.sector) {
          fold = false;
        } else {
          run += extents[i].sectors * 512ULL;
          continue;
        }
        break;
      }
      if (run != 0) {
        Cut(lba, lba + run);
        ranges[lba] = {lba, lba + run, lsn, first.sector * 512, SizeClass(length)};
      }
      lba += run;
    }
  }

  void Release(const std::vector<uint64_t>& released) {
    static constexpr uint64_t kLengths[] = {0, 262144, 131072, 65536, 16384, 8192, 4096, 4096};
    ++releases;
    for (const uint64_t lsn : released) {
      const auto found = lsns.find(lsn);
      if (found == lsns.end()) continue;
      const uint64_t lba = found->second;
      lsns.erase(found);
      auto range = ranges.upper_bound(lba);
      if (range == ranges.begin() || (--range)->second.end <= lba) continue;
      uint64_t left = range->second.sizeClass == 0 ? longest : kLengths[range->second.sizeClass];
      while (left != 0 && range != ranges.end()) {
        const Range r = range->second;
        if (r.lsn == lsn) ranges.erase(range);
        left -= std::min(left, r.end - r.start);
        range = ranges.find(r.end);
      }
    }
  }
};

class ReplayTest : public LogTest {
 protected:
  // Replays what the chain holds and hands out the group.
  OpenedGroup Replayed(uint32_t expected = 0, bool disks = false) {
    image_.Write(plog_, llog_);
    OpenedGroup opened = OpenChosen(disks);
    log_.Clear();
    EXPECT_EQ(KABSSDLOGRecovPlogLog(opened.ssd.get()), expected) << log_.Text();
    return opened;
  }

  static std::vector<Model::Range> Ranges(KABPlogState* state) {
    std::vector<Model::Range> ranges;
    ZOLTLbaTableCursor cursor;
    for (const ZOLTLbaRange* r = ZOLTLbaTable_First(&state->lbaTable, &cursor); r != nullptr;
         r = ZOLTLbaTable_Next(&state->lbaTable, &cursor)) {
      EXPECT_EQ(r->owner, r->data & kLsnMask);
      EXPECT_EQ(r->data >> 55U & 0xF, 0U);
      EXPECT_EQ(r->data >> 62U, 0U);
      ranges.push_back({r->start, r->start + r->length, r->owner, r->address, r->data >> 59U & 7U});
    }
    return ranges;
  }
  static std::map<uint64_t, uint64_t> Lsns(KABPlogState* state) {
    std::map<uint64_t, uint64_t> lsns;
    ZOLTIndexMapCursor cursor;
    for (uint32_t st = ZOLTIndexMap_First(&state->indexMap, &cursor); st == 0;
         st = ZOLTIndexMap_Next(&state->indexMap, &cursor)) {
      lsns[cursor.tuple[0]] = cursor.tuple[3];
      EXPECT_EQ(cursor.tuple[1] | cursor.tuple[2] | cursor.tuple[4], 0U);
    }
    return lsns;
  }
};

class ReplayModelTest : public ReplayTest, public testing::WithParamInterface<uint64_t> {};

TEST_P(ReplayModelTest, TablesAreTheModels) {
  std::mt19937_64 random(GetParam());
  Model models[2];
  uint64_t lsn = 1;
  const uint64_t space = GetParam() % 2 == 0 ? 64 : 2048;  // sectors: crowded or sparse
  for (int i = 0; i < 2500; ++i) {
    const auto disk = static_cast<uint32_t>(random() % 2);
    if (random() % 4 != 0) {
      static constexpr uint64_t kLengths[] = {512,   4096,  4096,  4096,   4096,   8192,
                                              12288, 20480, 70000, 140000, 262144, 270000};
      const uint64_t length = kLengths[random() % (space == 64 ? 8 : 12)];
      const uint64_t lba = random() % space * 512 + (random() % 50 == 0 ? 77 : 0);
      std::vector<LogExtent> extents;
      uint64_t sectors = (length + 511) / 512;
      while (sectors != 0) {
        const auto some = random() % 3 == 0 ? 1 + random() % sectors : sectors;
        // Now and then the same place again, which folds while nothing else came between.
        const uint64_t sector = !extents.empty() && random() % 4 == 0 ? extents[0].sector : random() % 100000;
        extents.push_back({sector, static_cast<uint16_t>(some)});
        sectors -= some;
      }
      const uint64_t used = random() % 60 == 0 && lsn > 10 ? lsn - 1 - random() % 8 : lsn++;
      const uint64_t stored = used | (random() % 10 == 0 ? 0xFF80000000000000 : 0);  // 55 bits count
      plog_.Add(WriteEntry(DiskUuid(disk), stored, lba, static_cast<uint32_t>(length), extents, i % 9 == 0 ? 4 : 1));
      models[disk].Write(used, lba, length, extents);
    } else {
      std::vector<uint64_t> lsns;
      for (uint64_t k = random() % 12; k != 0; --k) lsns.push_back(1 + random() % (lsn + 3));
      plog_.Add(ReleaseEntry(DiskUuid(disk), lsns));
      models[disk].Release(lsns);
    }
  }
  OpenedGroup opened = Replayed();
  for (uint32_t disk = 0; disk < 2; ++disk) {
    KABPlogState* state = opened.ssd->disks[disk]->plogState;
    ASSERT_NE(state, nullptr);
    std::vector<Model::Range> expected;
    for (const auto& range : models[disk].ranges) expected.push_back(range.second);
    const std::vector<Model::Range> found = Ranges(state);
    EXPECT_EQ(found.size(), expected.size());
    EXPECT_TRUE(found == expected);
    EXPECT_EQ(Lsns(state), models[disk].lsns);
    EXPECT_EQ(state->maxWriteLength, models[disk].longest);
    EXPECT_EQ(state->writeEntries, models[disk].writes);
    EXPECT_EQ(state->freeEntries, models[disk].releases);
    EXPECT_EQ(state->exactRemovals, 0U);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ReplayModelTest, testing::Range(uint64_t{1}, uint64_t{9}));

TEST_F(ReplayTest, SizeClassesHaveTheirLimits) {
  const std::pair<uint32_t, uint64_t> limits[] = {
      {0, 6},     {1, 6},     {4095, 6},  {4096, 7},   {4097, 5},   {8192, 5},   {8193, 4},   {16384, 4},
      {16385, 3}, {65536, 3}, {65537, 2}, {131072, 2}, {131073, 1}, {262144, 1}, {262145, 0}, {0xFFFFFFFF, 0}};
  uint64_t lsn = 0;
  for (const auto& limit : limits) {
    ++lsn;
    plog_.Add(WriteEntry(DiskUuid(0), lsn, lsn << 20U, limit.first, {{lsn * 8, 1}}));
  }
  OpenedGroup opened = Replayed();
  const std::vector<Model::Range> ranges = Ranges(opened.ssd->disks[0]->plogState);
  ASSERT_EQ(ranges.size(), std::size(limits));
  for (size_t i = 0; i < ranges.size(); ++i) EXPECT_EQ(ranges[i].sizeClass, limits[i].second) << limits[i].first;
}

TEST_F(ReplayTest, RunsOnceAndServesAnEmptyLog) {
  OpenedGroup opened = Replayed();
  EXPECT_EQ(opened.ssd->plogRecoveryComplete, 1);
  ASSERT_EQ(truncate(opened.paths.ssd.c_str(), 0), 0);  // a second call has nothing to read
  EXPECT_EQ(KABSSDLOGRecovPlogLog(opened.ssd.get()), 0U);
  EXPECT_EQ(log_.Text(), "");
}

TEST_F(ReplayTest, StrangeEntriesAreSkipped) {
  plog_.Add(BareEntry(DiskUuid(0), 0)).Add(BareEntry(DiskUuid(0), 3)).Add(BareEntry(DiskUuid(0), 5));
  plog_.Add(WriteEntry(DiskUuid(0), 5, 8192, 4096, {}));  // records its LSN and maps nothing
  plog_.Add(ReleaseEntry(DiskUuid(0), {77, 0, ~uint64_t{0}}));
  OpenedGroup opened = Replayed();
  EXPECT_EQ(log_.Text(), "Wrong entry type PLOG_ENTRY_GCP found\n");
  KABPlogState* state = opened.ssd->disks[0]->plogState;
  EXPECT_EQ(Lsns(state), (std::map<uint64_t, uint64_t>{{5, 8192}}));
  EXPECT_TRUE(Ranges(state).empty());
  EXPECT_EQ(state->writeEntries, 1U);
  EXPECT_EQ(state->freeEntries, 1U);
}

TEST_F(ReplayTest, PlaceholdersAreTakenOverOrReleased) {
  plog_.Add(WriteEntry(DiskUuid(0), 1, 0, 4096, {{8000, 8}})).Add(WriteEntry(DiskUuid(1), 2, 0, 4096, {{8008, 8}}));
  OpenedGroup opened = Replayed();
  ASSERT_NE(opened.ssd->disks[1], nullptr);
  EXPECT_EQ(opened.ssd->disks[1]->placeholder, 1);
  EXPECT_EQ(opened.ssd->disks[1]->fd, -1);
  EXPECT_EQ(opened.ssd->disks[1]->uuidText, sample::UuidText(DiskUuid(1)));
  EXPECT_EQ(opened.ssd->openDiskCount, 0U);
  KABPlogState* state = opened.ssd->disks[0]->plogState;
  kab_test::OpenedDisk disk(KABOpenDisk(opened.paths.disks[0].c_str(), O_RDONLY, opened.ssd.get(), 0));
  ASSERT_NE(disk, nullptr);
  EXPECT_EQ(disk->plogState, state);
  EXPECT_EQ(state->owner, disk.get());
  EXPECT_EQ(opened.ssd->openDiskCount, 1U);
}

TEST_F(ReplayTest, SharedStateTakesEveryDisk) {
  Ssd().DedupMode(2);
  const sample::Uuid stranger = sample::MakeUuid(999);
  plog_.Add(WriteEntry(DiskUuid(0), 1, 0, 4096, {{8000, 8}}));
  plog_.Add(WriteEntry(stranger, 2, uint64_t{1} << 50U, 4096, {{8008, 8}}));
  OpenedGroup opened = Replayed(0, true);
  KABPlogState* state = opened.ssd->plogState;
  ASSERT_NE(state, nullptr);
  EXPECT_EQ(Ranges(state).size(), 2U);
  for (const kab_test::OpenedDisk& disk : opened.disks) EXPECT_EQ(disk->plogState, state);
}

// A disk of a group that shares its state finds its ranges under its own index.
TEST_F(ReplayTest, SharedStateIsReadByDeviceIndex) {
  Ssd().DedupMode(2).FillNoise(LogImage::BlkOffset(1000), 8192, 4);
  group_.Disk(1).DedupMode(2);
  plog_.Add(WriteEntry(DiskUuid(0), 1, 4096, 4096, {{8000, 8}}));
  plog_.Add(WriteEntry(DiskUuid(1), 2, (uint64_t{1} << 50U) + 4096, 4096, {{8008, 8}}));
  OpenedGroup opened = Replayed(0, true);
  std::vector<uint8_t> bytes(4096);
  EXPECT_EQ(KABPlogRead(opened.disks[0].get(), bytes.data(), 4096, 4096), 0U);
  EXPECT_EQ(bytes, Ssd().GetBytes(LogImage::BlkOffset(1000), 4096));
  EXPECT_EQ(KABPlogRead(opened.disks[1].get(), bytes.data(), 4096, 4096), 0U);
  EXPECT_EQ(bytes, Ssd().GetBytes(LogImage::BlkOffset(1001), 4096));
  log_.Clear();
  EXPECT_EQ(KABPlogWrite(opened.disks[1].get(), bytes.data(), 4096, 4096), 7U);
  EXPECT_EQ(log_.Text(), "Error: Failed to do plog write, dedup write is not supported\n");
}

// ---- Giving up ----------------------------------------------------------------------------------------------

struct BadCase {
  const char* name;
  uint32_t type;
  uint64_t offset;  // within the third entry of the second block
  uint32_t width;
  uint64_t value;
  uint32_t status;
  const char* line;
};

const BadCase kBadCases[] = {
    {"LengthZero", 1, 20, 4, 0, 9, "MetaError: PLOG entry has an impossible length: 0\n"},
    {"LengthBelowThePrefix", 1, 20, 4, 47, 9, "MetaError: PLOG entry has an impossible length: 47\n"},
    {"LengthBelowTheHeader", 1, 20, 4, 55, 9, "MetaError: PLOG entry has an impossible length: 55\n"},
    {"LengthPastTheBlock", 1, 20, 4, 4000, 9, "MetaError: PLOG entry has an impossible length: 4000\n"},
    {"LengthWraps", 1, 20, 4, 0xFFFFFFFF, 9, "MetaError: PLOG entry has an impossible length: 4294967295\n"},
    {"WriteTooShort", 1, 20, 4, 75, 9, "MetaError: PLOG entry too short for a write: 75\n"},
    {"LbaWraps", 1, 64, 8, 0xFFFFFFFFFFFFF001, 9, "MetaError: PLOG entry wraps from LBA: 18446744073709547521\n"},
    {"MapOutsideItsEntry", 1, 16, 4, 3000, 9, "MetaError: Alloc map of 0 elements leaves its log entry\n"},
    {"MapCountPastItsEntry", 1, 76, 2, 5, 9, "MetaError: Alloc map of 5 elements leaves its log entry\n"},
    {"MapCountAboveTheLimit", 1, 76, 2, 513, 2, "MetaError: Invalid num elements(513) in alloc map\n"},
    {"LsnsPastTheEntry", 2, 56, 4, 4, 9, "MetaError: PLOG entry too short for its LSNs: 4\n"},
    {"LsnsWrap", 2, 56, 4, 0xFFFFFFFF, 9, "MetaError: PLOG entry too short for its LSNs: 4294967295\n"},
    {"UnknownDisk", 1, 0, 4, 0x04030201, 2, "Error: Failed to find the uuid 01020304-"},
};

class GivingUpTest : public ReplayTest, public testing::WithParamInterface<BadCase> {};

TEST_P(GivingUpTest, LeavesNothingAndCanBeTriedAgain) {
  const BadCase& c = GetParam();
  for (const uint8_t mode : {uint8_t{0}, uint8_t{2}}) {
    if (mode == 2 && c.offset == 0) continue;  // a shared state takes any disk
    SCOPED_TRACE(mode);
    Ssd().DedupMode(mode);
    plog_ = sample::LogChain(1);
    plog_.Add(WriteEntry(DiskUuid(0), 1, 0, 4096, {{8000, 8}})).EndBlock();
    plog_.Add(WriteEntry(DiskUuid(1), 2, 0, 4096, {{8000, 8}})).Add(BareEntry(DiskUuid(0), 9));
    std::vector<uint8_t> bad = c.type == 1 ? WriteEntry(DiskUuid(0), 3, 0, 4096, {{8000, 8}, {9000, 8}})
                                           : ReleaseEntry(DiskUuid(0), {1, 2, 3});
    const std::vector<uint8_t> good = bad;
    std::memcpy(bad.data() + c.offset, &c.value, c.width);
    plog_.Add(bad);
    image_.Write(plog_);
    OpenedGroup opened = OpenChosen();
    kab_test::OpenedDisk disk(KABOpenDisk(opened.paths.disks[1].c_str(), O_RDONLY, opened.ssd.get(), 0));
    log_.Clear();
    EXPECT_EQ(KABSSDLOGRecovPlogLog(opened.ssd.get()), c.status);
    EXPECT_THAT(log_.Text(), HasSubstr(c.line));
    char line[200];
    std::snprintf(line, sizeof line, "%s: Error: Recovery of PLOG log block 0x%lx failed: %s.\n", opened.ssd->uuidText,
                  LogImage::BlkOffset(image_.PlogBlks()[1]), KABErrorStr(c.status));
    EXPECT_THAT(log_.Text(), testing::EndsWith(line));
    EXPECT_EQ(opened.ssd->plogRecoveryComplete, 0);
    EXPECT_EQ(opened.ssd->plogCachesInitialised, 0);
    EXPECT_EQ(opened.ssd->plogState, nullptr);
    EXPECT_EQ(opened.ssd->disks[0], nullptr);
    ASSERT_EQ(opened.ssd->disks[1], disk.get());
    EXPECT_EQ(disk->plogState, nullptr);

    // Repaired underneath, the log replays.
    const int fd = open(opened.paths.ssd.c_str(), O_RDWR);
    const uint64_t blk = image_.PlogBlks()[1];
    const uint64_t at = LogImage::BlkOffset(blk) + 64 + 85 + 56;
    Ssd().PutBytes(at, good);
    LogImage::SealBlock(Ssd(), blk);
    const std::vector<uint8_t> block = Ssd().GetBytes(LogImage::BlkOffset(blk), 4096);
    EXPECT_EQ(pwrite(fd, block.data(), 4096, static_cast<off_t>(LogImage::BlkOffset(blk))), 4096);
    close(fd);
    log_.Clear();
    EXPECT_EQ(KABSSDLOGRecovPlogLog(opened.ssd.get()), 0U) << log_.Text();
    EXPECT_NE(disk->plogState, nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(Entries, GivingUpTest, testing::ValuesIn(kBadCases),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(ReplayTest, ChainsThatComeBackAndReadsThatFailGiveUp) {
  for (uint64_t i = 0; i < 30; ++i) plog_.Add(WriteEntry(DiskUuid(0), i + 1, i * 4096, 4096, {{8000, 8}})).EndBlock();
  image_.Write(plog_);
  const uint64_t last = image_.PlogBlks()[29];
  const struct {
    uint64_t next;
    uint32_t status;
    const char* text;
  } cases[] = {{image_.PlogBlks()[3], 9, "Block is invalid"}, {1ULL << 40, 1, "IO Error"}};
  for (const auto& c : cases) {
    sample::GroupImage group = group_;
    group.Ssd().Put64(LogImage::BlkOffset(last) + 16, c.next);
    LogImage::ForgeBlock(group.Ssd(), last, 0);
    OpenedGroup opened = Open(group, false);
    ASSERT_EQ(KABSSDLOGGetValidCheckPointRecord(opened.ssd.get()), 0U);
    EXPECT_EQ(KABSSDLOGRecovPlogLog(opened.ssd.get()), c.status);
    EXPECT_THAT(log_.Text(), testing::EndsWith(std::string(opened.ssd->uuidText) +
                                               ": Error: PLOG log recovery failed with error: " + c.text + ".\n"));
    EXPECT_EQ(opened.ssd->disks[0], nullptr);
  }
}

// Many long writes from one place, then short ones that follow one another under them: every release would have to
// step along all of them.
TEST_F(ReplayTest, ReleasesShareAnAllowance) {
  uint64_t lsn = 1;
  std::vector<uint64_t> lsns;
  for (int i = 0; i < 490; ++i) {
    lsns.push_back(lsn);
    plog_.Add(WriteEntry(DiskUuid(0), lsn++, 0, 0xFFFFFFFF, {{8000, 1}}));
  }
  // One extent a sector, all contiguous, under the LSN that the releases do not name.
  for (uint64_t at = 0; at < 60; ++at) {
    std::vector<LogExtent> extents;
    for (uint64_t i = 0; i < 512; ++i) extents.push_back({i * 2, 1});
    plog_.Add(WriteEntry(DiskUuid(0), 5000 + at, at * 512 * 512, 0xFFFFFFFF, extents));
  }
  plog_.Add(ReleaseEntry(DiskUuid(0), lsns));
  OpenedGroup opened = Replayed(9);
  EXPECT_THAT(log_.Text(), HasSubstr("MetaError: PLOG entry releases too much, LSN: "));
}

// ---- LLOG ---------------------------------------------------------------------------------------------------

TEST_F(ReplayTest, LlogIsCompleteOnlyWhenEmpty) {
  {
    OpenedGroup opened = Replayed();
    EXPECT_EQ(KABSSDLOGRecovLlogLog(opened.ssd.get()), 0U);
    EXPECT_EQ(opened.ssd->llogRecoveryComplete, 1);
    KABComponentState record = {.uuidLow = 5, .uuidHigh = 6, .lbaTable = {}, .link = {}};
    ARVOUUIDTable_Insert(KABSSDLOGComponentTable(opened.ssd.get()), 5, 6, &record.link);
    EXPECT_EQ(ARVOUUIDTable_Find(opened.ssd->componentTable, 5, 6), &record.link);
    EXPECT_EQ(ARVOUUIDTable_Find(opened.ssd->componentTable, 5, 7), nullptr);
  }
  for (uint64_t i = 0; i < 5; ++i) llog_.Add(BareEntry(DiskUuid(0), 1)).Add(BareEntry(DiskUuid(0), 1)).EndBlock();
  OpenedGroup opened = Replayed();
  log_.Clear();
  EXPECT_EQ(KABSSDLOGRecovLlogLog(opened.ssd.get()), 7U);
  EXPECT_EQ(log_.Text(),
            std::string(opened.ssd->uuidText) + ": Error: LLOG holds 10 entries, replay is not supported\n");
  EXPECT_EQ(opened.ssd->llogRecoveryComplete, 0);

  Ssd().Put32(LogImage::BlkOffset(image_.LlogBlks()[4]) + 64 + 20, 5000);
  LogImage::SealBlock(Ssd(), image_.LlogBlks()[4]);
  OpenedGroup broken = OpenChosen();
  EXPECT_EQ(KABSSDLOGRecovLlogLog(broken.ssd.get()), 9U);
  EXPECT_THAT(log_.Text(), HasSubstr("MetaError: Invalid entry at byte 64 of LLOG log block"));
}

}  // namespace
