// Component handles: refusals, reads split along the LBA table, and the superblock's rules.

#include <gmock/gmock.h>

#include <cstring>

#include "kab/indexes.h"
#include "kab/ssdlog.h"
#include "kab/zolt.h"
#include "orlo/orlo_group.h"

namespace {

using kab_test::OrloGroup;
using kab_test::Untouched;
using sample::MakeUuid;
using sample::UuidText;

constexpr uint64_t kReserve = 4194304;  // format version 7
constexpr uint64_t kBlock = 4096;

class ComponentHandleTest : public testing::Test {
 protected:
  // The component's first 4 MiB and what follows them: a read that takes a byte count for its offset starts low.
  void SetUp() override {
    group_.orlo[0].AddVdisk(MakeUuid(500), {{0, 40}, {60, 20}, {1024, 30}});
    group_.images.Ssd().FillNoise(3145728 + 65536, 65536, 8);
    group_.Open();
    Bucketlist_CacheInit(&cache_, 4);
  }
  void TearDown() override {
    KABComponentClose(handle_);
    ZOLTLbaTable_Destroy(&state_.lbaTable);
    Bucketlist_CacheDestroy(&cache_);
  }
  void OpenHandle() {
    handle_ = KABComponentOpen(group_.ssd, UuidText(MakeUuid(500)).c_str());
    ASSERT_NE(handle_, nullptr) << group_.log.Text();
  }
  /// Puts the component into the group's table, with these ranges (component offset, length, SSD address).
  void Log(std::initializer_list<std::array<uint64_t, 3>> ranges) {
    const auto uuid = MakeUuid(500);
    std::memcpy(&state_.uuidLow, uuid.data(), 8);
    std::memcpy(&state_.uuidHigh, uuid.data() + 8, 8);
    ASSERT_EQ(ZOLTLbaTable_Init(&state_.lbaTable, &cache_, 5), KAB_OK);
    for (const auto& [offset, length, address] : ranges) {
      Rangemap_Insert(state_.lbaTable.list, kReserve + offset, kReserve + offset + length, 1, address, 0, nullptr, 0);
    }
    ARVOUUIDTable_Insert(KABSSDLOGComponentTable(group_.ssd), state_.uuidLow, state_.uuidHigh, &state_.link);
  }
  std::vector<uint8_t> Ssd(uint64_t address, uint64_t length) {
    return group_.images.Ssd().GetBytes(3145728 + address, length);
  }
  /// What an Orlo read with count and key in each other's place leaves in `buf` at `at`.
  void Swapped(std::vector<uint8_t>& buf, uint64_t at, uint64_t bytes, uint64_t key) {
    const uint64_t blocks = key / kBlock;
    auto piece = group_.orlo[0].Picture(0, bytes, key);
    const uint64_t end = (bytes + key) / kBlock * kBlock;
    if (end < bytes + key) std::fill(piece.end() - static_cast<ptrdiff_t>(bytes + key - end), piece.end(), 0);
    ASSERT_GT(blocks, 100U);  // more than the component has in that range: the capacity plays no part
    std::copy(piece.begin(), piece.end(), buf.begin() + static_cast<ptrdiff_t>(at));
  }

  OrloGroup group_{7};
  KABComponentHandle* handle_ = nullptr;
  KABComponentState state_{};
  BucketlistCache cache_{};
};

TEST_F(ComponentHandleTest, OpensOnlyAfterBothReplaysAndOnlyWhatIsThere) {
  const std::string there = UuidText(MakeUuid(500));
  struct Case {
    uint8_t plog, llog;
    std::string uuid;
    std::string line;
  };
  const std::string absent = UuidText(MakeUuid(999));
  const Case cases[] = {
      {0, 1, there, "ZOLT recovery was not complete.\n"},
      {1, 0, there, "ZOLT recovery was not complete.\n"},
      {1, 1, there.substr(0, 34), there.substr(0, 34) + ": Invalid uuid specified\n"},
      {1, 1, absent, "Orlo couldn't open the Comp:" + absent + "\n"},
  };
  for (const Case& c : cases) {
    group_.log.Clear();
    group_.ssd->plogRecoveryComplete = c.plog;
    group_.ssd->llogRecoveryComplete = c.llog;
    EXPECT_EQ(KABComponentOpen(group_.ssd, c.uuid.c_str()), nullptr);
    EXPECT_EQ(group_.log.Text(), c.line);
  }
  OpenHandle();
  EXPECT_EQ(handle_->ctx, group_.ssd);
  EXPECT_EQ(handle_->compState, nullptr);
  EXPECT_EQ(handle_->orloComp->disk, group_.Disk());
}

TEST_F(ComponentHandleTest, AComponentThatNoReplayMetIsReadWithCountAndKeySwapped) {
  OpenHandle();
  const uint64_t offset = 3 * kBlock + 5;
  auto buf = Untouched(kReserve + offset + 100);
  auto expected = buf;
  Swapped(expected, 0, 2 * kBlock, kReserve + offset);
  EXPECT_EQ(KABComponentRead(handle_, buf.data(), 2 * kBlock, offset), KAB_OK);
  EXPECT_EQ(buf, expected);
}

TEST_F(ComponentHandleTest, LoggedRangesComeFromTheSsd) {
  Log({{kBlock, 2 * kBlock, 65536}, {4 * kBlock, kBlock, 81920}, {5 * kBlock, 700, 90000}});
  OpenHandle();
  ASSERT_EQ(handle_->compState, &state_);
  auto buf = Untouched(2 * kReserve);
  EXPECT_EQ(KABComponentRead(handle_, buf.data(), 0, 0), KAB_OK);
  EXPECT_EQ(buf, Untouched(2 * kReserve));

  // Wholly inside one range, and over the border of two adjacent ones.
  auto expected = buf;
  auto piece = Ssd(65536 + 10, 4000);
  std::copy(piece.begin(), piece.end(), expected.begin());
  EXPECT_EQ(KABComponentRead(handle_, buf.data(), 4000, kBlock + 10), KAB_OK);
  EXPECT_EQ(buf, expected);
  piece = Ssd(81920 + 96, 4000);
  std::copy(piece.begin(), piece.end(), expected.begin());
  piece = Ssd(90000, 700);
  std::copy(piece.begin(), piece.end(), expected.begin() + 4000);
  EXPECT_EQ(KABComponentRead(handle_, buf.data(), 4700, 4 * kBlock + 96), KAB_OK);
  EXPECT_EQ(buf, expected);

  // A gap in front, between and behind.
  uint64_t at = 0;
  const auto gap = [&](uint64_t bytes, uint64_t key) { Swapped(expected, at, bytes, key), at += bytes; };
  const auto logged = [&](uint64_t address, uint64_t bytes) {
    const auto stored = Ssd(address, bytes);
    std::copy(stored.begin(), stored.end(), expected.begin() + static_cast<ptrdiff_t>(at));
    at += bytes;
  };
  gap(kBlock, kReserve);
  logged(65536, 2 * kBlock);
  gap(kBlock, kReserve + 3 * kBlock);
  logged(81920, kBlock);
  logged(90000, 700);
  gap(1000, kReserve + 5 * kBlock + 700);
  EXPECT_EQ(KABComponentRead(handle_, buf.data(), static_cast<uint32_t>(at), 0), KAB_OK);
  EXPECT_EQ(buf, expected);
  EXPECT_EQ(group_.log.Text(), "");
}

TEST_F(ComponentHandleTest, TheFirstFailingPieceEndsTheRead) {
  Log({{0, kBlock, 1ULL << 40}, {kBlock, kBlock, 65536}});
  OpenHandle();
  auto buf = Untouched(2 * kBlock);
  EXPECT_EQ(KABComponentRead(handle_, buf.data(), 2 * kBlock, 0), KAB_IO_ERROR);
  EXPECT_EQ(buf, Untouched(2 * kBlock));
}

TEST(ComponentSuperBlockTest, NamesTheFirstBrokenRule) {
  struct Case {
    uint32_t offset;
    uint32_t good, bad;
    const char* line;
  };
  const Case cases[] = {
      {0, 0x5B6A7890, 0x5B6A7891, "sblk magic found corrupted\n"},
      {4, 0x1F2E3D4C, 0x1F2E3D4D, "sblk magic found corrupted\n"},
      {8, 2, 3, "sblk major version found corrupted\n"},
      {24, 0xFFFF, 0x10000, "sblk policyLen found corrupted\n"},
      {28, 0xFFFFF, 0x100000, "sblk attributesLen found corrupted\n"},
      {32, 0x7FFFF, 0x80000, "sblk configLen found corrupted\n"},
      {36, 0x1FFFF, 0x20000, "sblk componentPolicyLen found corrupted\n"},
      {40, 0x3FFFF, 0x40000, "sblk extraParamsLen found corrupted\n"},
  };
  kab_test::LogCapture log;
  uint8_t sblk[44] = {};
  for (const Case& c : cases) std::memcpy(sblk + c.offset, &c.good, 4);
  EXPECT_EQ(KABIsZOLTCompSblkValid(sblk), 1U);
  EXPECT_EQ(log.Text(), "");
  // Broken from the last rule to the first: the rules behind the one named are broken, too.
  for (size_t i = std::size(cases); i-- > 0;) {
    std::memcpy(sblk + cases[i].offset, &cases[i].bad, 4);
    EXPECT_EQ(KABIsZOLTCompSblkValid(sblk), 0U);
    EXPECT_EQ(log.Text(), cases[i].line);
    log.Clear();
  }
}

}  // namespace
