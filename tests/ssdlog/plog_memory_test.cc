// Memory that runs out: a replay gives up as a whole, and no read takes the disk for newer than the log.

#include "log_fixture.h"
#include "support/fault_shim.h"

using kab_test::LogTest;
using kab_test::OpenedGroup;
using sample::LoggedGroup;
using sample::WriteEntry;

namespace {

class PlogMemoryTest : public LogTest {
 protected:
  ~PlogMemoryTest() override { KabFaultPlan("", nullptr); }

  // Whether the allocation was asked for at all.
  template <class Call>
  static bool WithoutAllocation(unsigned long number, uint32_t* st, const Call& call) {
    KabFaultPlan(("calloc@" + std::to_string(number) + "=ENOMEM").c_str(), nullptr);
    *st = call();
    const bool reached = KabFaultCalls("calloc") >= number;
    KabFaultPlan("", nullptr);
    return reached;
  }
};

TEST_F(PlogMemoryTest, EveryAllocationOfAReplayCounts) {
  constexpr uint32_t kBytes = 256 << 10;
  LoggedGroup logged({.disks = 2, .entries = 150, .diskBytes = kBytes});
  const sample::GroupPaths paths = logged.Group().Write(dir_.Path());
  std::vector<uint8_t> seen(kBytes);
  unsigned long number = 1;
  for (bool reached = true; reached && !HasFailure(); ++number) {
    OpenedGroup opened;
    opened.ssd.reset(KABOpenSSD(paths.ssd.c_str(), O_RDWR, 0));
    opened.disks.emplace_back(KABOpenDisk(paths.disks[0].c_str(), O_RDWR, opened.ssd.get(), 0));
    KABDiskCtx* ssd = opened.ssd.get();
    ASSERT_EQ(KABSSDLOGGetValidCheckPointRecord(ssd), 0U);
    uint32_t st = 0;
    reached = WithoutAllocation(number, &st, [&] { return KABSSDLOGRecovPlogLog(ssd); });
    EXPECT_EQ(st != 0, reached) << "allocation " << number;
    if (st != 0) {
      EXPECT_EQ(ssd->plogRecoveryComplete | ssd->plogCachesInitialised, 0);
      EXPECT_EQ(opened.disks[0]->plogState, nullptr);
      EXPECT_EQ(ssd->disks[1], nullptr);
      ASSERT_EQ(KABSSDLOGRecovPlogLog(ssd), 0U) << "again, after allocation " << number;
    }
    ASSERT_EQ(KABPlogRead(opened.disks[0].get(), seen.data(), kBytes, 0), 0U);
    EXPECT_EQ(seen, logged.Picture(0)) << "allocation " << number;
  }
  EXPECT_GT(number, 100U);
}

// More ranges than the caches keep unpacked, so that a look-up has to bring a node back first.
TEST_F(PlogMemoryTest, ReadsDoNotPassOverRangesTheyCannotLookUp) {
  std::vector<sample::LogExtent> extents;
  for (uint64_t i = 0; i < 512; ++i) extents.push_back({i * 2, 1});
  for (uint64_t i = 0; i < 400; ++i) plog_.Add(WriteEntry(DiskUuid(0), i + 1, i * 512 * 512, 512 * 512, extents));
  image_.Write(plog_);
  OpenedGroup opened = OpenChosen(true);
  ASSERT_EQ(KABSSDLOGRecovPlogLog(opened.ssd.get()), 0U) << log_.Text();
  KABDiskCtx* disk = opened.disks[0].get();
  // The first sector of every entry holds the log's first record; the disk itself holds zeros.
  std::vector<uint8_t> record(512);
  ASSERT_EQ(KABPlogRead(disk, record.data(), 512, 0), 0U);
  ASSERT_NE(record, std::vector<uint8_t>(512));

  uint32_t refused = 0;
  for (uint64_t i = 0; i < 400; ++i) {
    std::vector<uint8_t> seen(512, 0xA5);
    uint32_t st = 0;
    WithoutAllocation(1, &st, [&] { return KABPlogRead(disk, seen.data(), 512, i * 512 * 512); });
    if (st != 0) {
      EXPECT_EQ(st, 3U);
      ++refused;
      ASSERT_EQ(KABPlogRead(disk, seen.data(), 512, i * 512 * 512), 0U);
    }
    ASSERT_EQ(seen, record) << "entry " << i;
  }
  EXPECT_GT(refused, 0U);
}

}  // namespace
