// Forward and backward along the chains, one step at a time and reading ahead.

#include "ssdlog/log_walk.h"
#include "log_fixture.h"

using kab::ssdlog::LogKind;
using kab::ssdlog::LogWalk;
using kab_test::LogTest;
using kab_test::OpenedGroup;
using sample::LogImage;
using testing::HasSubstr;

namespace {

using Next = uint32_t (*)(KABDiskCtx*, const void*, void*, uint64_t*);

struct Walked {
  std::vector<uint64_t> offsets;
  uint32_t status;
  std::string lines;
};

class WalkTest : public LogTest {
 protected:
  void Chain(sample::LogChain* chain, uint32_t blocks) {
    for (uint32_t i = 0; i < blocks; ++i) {
      chain->Add(sample::WriteEntry(DiskUuid(0), i + 1, i * 4096, 4096, {{8000 + i * 8ULL, 8}})).EndBlock();
    }
  }

  Walked Steps(KABDiskCtx* ssd, Next next) {
    Walked walked{};
    log_.Clear();
    uint8_t block[4096];
    const void* cur = nullptr;
    uint64_t offset = 0;
    while ((walked.status = next(ssd, cur, block, &offset)) == 0) {
      walked.offsets.push_back(offset);
      cur = block;  // the header and the buffer may be the same
      if (walked.offsets.size() > 5000) break;
    }
    walked.lines = log_.Text();
    return walked;
  }

  Walked Ahead(KABDiskCtx* ssd, LogKind kind) {
    Walked walked{};
    log_.Clear();
    LogWalk walk(ssd, kind);
    while ((walked.status = walk.Next()) == 0) walked.offsets.push_back(walk.Offset());
    walked.lines = log_.Text();
    return walked;
  }

  Walked Back(KABDiskCtx* ssd, uint32_t type) {
    Walked walked{};
    log_.Clear();
    uint8_t block[4096];
    const void* cur = nullptr;
    uint64_t offset = 0;
    while ((walked.status = KABSSDLOGReadPrev(ssd, type, cur, block, &offset)) == 0) {
      walked.offsets.push_back(offset);
      cur = block;
    }
    walked.lines = log_.Text();
    return walked;
  }
};

TEST_F(WalkTest, BothLogsBothWays) {
  for (const uint64_t stride : {1, 3}) {
    for (const uint32_t blocks : {0U, 1U, 2U, 65U, 200U}) {
      SCOPED_TRACE(testing::Message() << blocks << " blocks, stride " << stride);
      plog_ = sample::LogChain(1), llog_ = sample::LogChain(2);
      Chain(&plog_, blocks);
      Chain(&llog_, blocks / 2);
      image_.Stride(stride).TornTail(blocks % 2 == 0).Write(plog_, llog_);
      OpenedGroup opened = OpenChosen();
      KABDiskCtx* ssd = opened.ssd.get();
      const struct {
        Next next;
        LogKind kind;
        uint32_t type;
        const std::vector<uint64_t>& blks;
      } logs[] = {{KABSSDLOGPlogReadNext, LogKind::kPlog, 1, image_.PlogBlks()},
                  {KABSSDLOGLlogReadNext, LogKind::kLlog, 2, image_.LlogBlks()}};
      for (const auto& log : logs) {
        std::vector<uint64_t> expected;
        for (const uint64_t blk : log.blks) expected.push_back(LogImage::BlkOffset(blk));
        const Walked steps = Steps(ssd, log.next);
        EXPECT_EQ(steps.offsets, expected);
        EXPECT_EQ(steps.status, 10U);
        EXPECT_EQ(steps.lines, "");
        EXPECT_EQ(Ahead(ssd, log.kind).offsets, expected);
        const Walked back = Back(ssd, log.type);
        EXPECT_EQ(back.offsets, std::vector<uint64_t>(expected.rbegin(), expected.rend()));
        EXPECT_EQ(back.status, 10U);
      }
    }
  }
}

struct EndCase {
  const char* name;
  uint64_t offset;  // in block 20 of 40
  uint64_t value;
  bool seal;
  size_t blocks;  // walked forward
  uint32_t status;
  const char* line;
};

TEST_F(WalkTest, EndsAndRefusals) {
  Chain(&plog_, 40);
  image_.Write(plog_);
  const EndCase cases[] = {
      {"Torn", 100, 1, false, 20, 10, ""},
      {"StaleLink", 32, 0x1234, true, 20, 10, ""},
      {"NextNowhere", 16, sample::kNoBlk, true, 21, 10, ""},
      {"NextBeyondTheDevice", 16, 1000000, true, 21, 1, "Error: Failed to read PLOG log block 1000000: IO Error.\n"},
      {"NextWraps", 16, 0xFFFFFFFFFFFFFFFF, true, 21, 1,
       "Error: Failed to read PLOG log block 18446744073709551615: IO Error.\n"},
      {"NextWrapsOntoTheLog", 16, (uint64_t{1} << 52U) + 40, true, 21, 1,
       "Error: Failed to read PLOG log block 4503599627370536: IO Error.\n"},
      {"MagicIsNotLookedAt", 4, 0, true, 21, 10, ""},  // the changed checksum breaks the next link
  };
  for (const EndCase& c : cases) {
    SCOPED_TRACE(c.name);
    sample::GroupImage group = group_;
    const uint64_t blk = image_.PlogBlks()[20];
    group.Ssd().Put64(LogImage::BlkOffset(blk) + c.offset, c.value);
    if (c.seal) LogImage::SealBlock(group.Ssd(), blk);
    OpenedGroup opened = Open(group, false);
    ASSERT_EQ(KABSSDLOGGetValidCheckPointRecord(opened.ssd.get()), 0U);
    for (const Walked& walked :
         {Steps(opened.ssd.get(), KABSSDLOGPlogReadNext), Ahead(opened.ssd.get(), LogKind::kPlog)}) {
      EXPECT_EQ(walked.offsets.size(), c.blocks);
      EXPECT_EQ(walked.status, c.status);
      EXPECT_EQ(walked.lines, c.line);
    }
  }
}

// A stored checksum of 0 switches the link check off, and checksums can be forged.
TEST_F(WalkTest, ComingBackIsRefusedWhereTheWalkReadsAhead) {
  Chain(&plog_, 100);
  image_.Write(plog_);
  const std::vector<uint64_t> blks = image_.PlogBlks();
  for (const size_t to : {0U, 17U, 80U, 98U, 99U}) {
    sample::GroupImage group = group_;
    group.Ssd().Put64(LogImage::BlkOffset(blks[99]) + 16, blks[to]);
    LogImage::ForgeBlock(group.Ssd(), blks[99], 0);
    OpenedGroup opened = Open(group, false);
    ASSERT_EQ(KABSSDLOGGetValidCheckPointRecord(opened.ssd.get()), 0U);
    const Walked walked = Ahead(opened.ssd.get(), LogKind::kPlog);
    EXPECT_EQ(walked.offsets.size(), 100U);
    EXPECT_EQ(walked.status, 9U);
    EXPECT_EQ(walked.lines, std::string(opened.ssd->uuidText) + ": MetaError: Log chain comes back to log block " +
                                std::to_string(blks[to]) + "\n");
  }
}

TEST_F(WalkTest, BackwardKeepsTheWriteBuffersBounds) {
  Chain(&plog_, 3);
  image_.Write(plog_);
  const uint64_t last = image_.PlogBlks()[2];
  for (const uint64_t prev : {kStart - 1, kStart + kLength}) {
    sample::GroupImage group = group_;
    group.Ssd().Put64(LogImage::BlkOffset(last) + 24, prev);
    LogImage::SealBlock(group.Ssd(), last);
    OpenedGroup opened = Open(group, false);
    ASSERT_EQ(KABSSDLOGGetValidCheckPointRecord(opened.ssd.get()), 0U);
    const Walked walked = Back(opened.ssd.get(), 1);
    EXPECT_EQ(walked.offsets.size(), 1U);
    EXPECT_EQ(walked.status, 9U);
    EXPECT_EQ(walked.lines, std::string(opened.ssd->uuidText) + ": Error: Invalid blkNo: " + std::to_string(prev) +
                                ", out of write buffer range.\n");
  }
  OpenedGroup opened = OpenChosen();
  ASSERT_EQ(truncate(opened.paths.ssd.c_str(), static_cast<off_t>(LogImage::BlkOffset(last))), 0);
  EXPECT_EQ(Back(opened.ssd.get(), 1).lines, std::string(opened.ssd->uuidText) +
                                                 ": Error: Failed to read type:1 log block " + std::to_string(last) +
                                                 ": IO Error.\n");
}

TEST_F(WalkTest, WithoutARecordThereIsNoFirstBlock) {
  image_.Write(plog_);
  OpenedGroup opened = Open();
  uint8_t block[4096];
  uint64_t offset = 5;
  EXPECT_EQ(KABSSDLOGPlogReadNext(opened.ssd.get(), nullptr, block, &offset), 11U);
  EXPECT_EQ(offset, 0U);
  EXPECT_EQ(KABSSDLOGLlogReadNext(opened.ssd.get(), nullptr, block, nullptr), 11U);
  EXPECT_EQ(KABSSDLOGReadPrev(opened.ssd.get(), 1, nullptr, block, nullptr), 11U);
  EXPECT_EQ(KABSSDLOGRecovPlogLog(opened.ssd.get()), 11U);
  EXPECT_EQ(KABSSDLOGRecovLlogLog(opened.ssd.get()), 11U);
}

}  // namespace
