// Checkpoint records, block headers, entry prefixes, bit counts.

#include <cstring>
#include <random>

#include "log_fixture.h"
#include "ssdlog/mix_checksum.h"

using kab_test::LogTest;
using kab_test::OpenedGroup;
using sample::LogImage;
using testing::HasSubstr;

namespace {

constexpr uint64_t kRecord0 = sample::kDataOffset;
constexpr uint64_t kRecord1 = sample::kDataOffset + 4096;

class CheckpointTest : public LogTest {};

struct RecordCase {
  const char* name;
  uint64_t offset;
  uint32_t width;
  uint64_t value;
  bool chosen;  // by the quick rule
  bool valid;   // by all rules
};

constexpr uint64_t kEnd = 16 + 1024;
const RecordCase kRecordCases[] = {
    {"Untouched", 88, 4, 5, true, true},
    {"Version", 0, 2, 2, false, false},
    {"Kind", 2, 2, 4, false, false},
    {"Magic", 4, 8, 1, false, false},
    {"BlockSize", 84, 4, 512, false, false},
    {"Geometry", 92, 8, 0x20001, true, false},
    {"EndBelowTheBuffer", 100, 8, kEnd - 1, true, false},
    {"EndAboveTheBuffer", 100, 8, kEnd + 5, true, true},
    {"ZeroWhereNoneIsAllowed", 108, 8, 0, true, false},
    {"NotZeroWhereItMustBe", 120, 4, 1, true, false},
    {"EmptyLlogWithALastBlock", 44, 8, 20, true, false},
    {"EmptyLlogWithAPresence", 52, 8, 1, true, false},
    {"PlogWithoutALastBlock", 68, 8, sample::kNoBlk, true, false},
    {"PlogWithoutAPresence", 76, 8, 0, true, false},
    {"PlogFirstBelowTheBuffer", 60, 8, 15, true, false},
    {"PlogFirstAboveTheBufferIsLeftOpen", 60, 8, 5000, true, true},
    {"PlogLastBeyondTheBuffer", 68, 8, kEnd, true, false},
    {"PlogLastBelowTheBufferIsLeftOpen", 68, 8, 3, true, true},
};

TEST_F(CheckpointTest, QuickRuleChoosesFullRuleJudges) {
  plog_.Add(sample::BareEntry(DiskUuid(0), 9));
  image_.Write(plog_);
  for (const RecordCase& c : kRecordCases) {
    SCOPED_TRACE(c.name);
    sample::GroupImage group = group_;
    sample::DiskImage& ssd = group.Ssd();
    if (c.width == 2) ssd.Put16(kRecord0 + c.offset, static_cast<uint16_t>(c.value));
    if (c.width == 4) ssd.Put32(kRecord0 + c.offset, static_cast<uint32_t>(c.value));
    if (c.width == 8) ssd.Put64(kRecord0 + c.offset, c.value);
    LogImage::SealRecord(ssd, 0);
    ssd.Put64(kRecord1 + 132, 1);
    OpenedGroup opened = Open(group, false);
    log_.Clear();
    EXPECT_EQ(KABSSDLOGGetValidCheckPointRecord(opened.ssd.get()), c.chosen ? 0U : 9U);
    EXPECT_EQ(log_.Text(), c.chosen ? ""
                                    : std::string(opened.ssd->uuidText) +
                                          ": MetaError: Both checkpoint records are invalid.. Disk needs to be "
                                          "initialized.\n");
    const std::vector<uint8_t> record = ssd.GetBytes(kRecord0, 140);
    EXPECT_EQ(KABSSDLOGCheckCPR(opened.ssd.get(), record.data()), c.valid ? 1U : 0U);
    if (!c.chosen) {
      uint8_t block[4096];
      EXPECT_EQ(KABSSDLOGPlogReadNext(opened.ssd.get(), nullptr, block, nullptr), 11U);
    }
  }
}

TEST_F(CheckpointTest, NewerCopyIsTakenAndTheSecondOnATie) {
  image_.Write(plog_);
  const struct {
    uint64_t first, second;
    bool firstTorn;
    uint64_t chosen;
  } cases[] = {
      {5, 4, false, 100}, {4, 5, false, 200}, {5, 5, false, 200}, {5, 4, true, 200}, {UINT64_MAX, 1, false, 100}};
  for (const auto& c : cases) {
    Ssd().Put64(kRecord0 + 12, c.first).Put64(kRecord1 + 12, c.second);
    Ssd().Put64(kRecord0 + 20, 100).Put64(kRecord1 + 20, 200);
    LogImage::SealRecord(Ssd(), 0);
    LogImage::SealRecord(Ssd(), 1);
    if (c.firstTorn) Ssd().Flip(kRecord0 + 140 - 1, 3);
    OpenedGroup opened = OpenChosen();
    uint64_t start = 0;
    std::memcpy(&start, opened.ssd->logState->checkpoint + 20, 8);
    EXPECT_EQ(start, c.chosen) << c.first << " " << c.second;
    EXPECT_EQ(opened.ssd->reservedAddrs[0], c.chosen + 0xFFFFFEFFFF5FF);
    EXPECT_EQ(opened.ssd->reservedAddrs[1], c.chosen + 0xFFFFFF07FF5FF);
    EXPECT_EQ(opened.ssd->reservedAddrs[2], c.chosen + 0xFFFFFFFFFF5FF);
  }
}

TEST_F(CheckpointTest, ChecksumIsJudgedBeforeTheMagic) {
  image_.Write(plog_);
  std::vector<uint8_t> record = Ssd().GetBytes(kRecord0, 141);
  record[4] ^= 1;
  OpenedGroup opened = Open();
  EXPECT_EQ(KABSSDLOGCheckCPR(opened.ssd.get(), record.data()), 0U);
  EXPECT_THAT(log_.Text(), HasSubstr(": MetaError: Checksum mismatch. stored:0x"));
  record[4] ^= 1;
  std::memmove(record.data() + 1, record.data(), 140);  // any alignment
  EXPECT_EQ(KABSSDLOGCheckCPR(opened.ssd.get(), record.data() + 1), 1U);
}

TEST_F(CheckpointTest, ReadFailuresNameTheCopy) {
  image_.Write(plog_);
  for (const int copy : {1, 2}) {
    OpenedGroup opened = OpenChosen();
    ASSERT_EQ(truncate(opened.paths.ssd.c_str(), static_cast<off_t>(sample::kDataOffset + (copy - 1) * 4096)), 0);
    log_.Clear();
    EXPECT_EQ(KABSSDLOGGetValidCheckPointRecord(opened.ssd.get()), 1U);
    EXPECT_EQ(log_.Text(), "Error: Failed to read checkpoint record " + std::to_string(copy) + ": IO Error.\n");
    EXPECT_EQ(KABSSDLOGRecovPlogLog(opened.ssd.get()), 11U);  // the record chosen before is gone
  }
}

TEST_F(LogTest, BlockHeaderIsJudgedInOrder) {
  plog_.Add(sample::BareEntry(DiskUuid(0), 9)).EndBlock().Add(sample::BareEntry(DiskUuid(0), 9));
  image_.Write(plog_);
  OpenedGroup opened = OpenChosen();
  KABDiskCtx* ssd = opened.ssd.get();
  const uint64_t blk = image_.PlogBlks()[1];
  const uint64_t at = LogImage::BlkOffset(blk);
  const struct {
    const char* name;
    uint64_t offset;
    uint32_t width;
    uint64_t value;
    bool seal;
    uint64_t expectedPrev;
    uint32_t logType;
    bool valid;
    const char* line;
  } cases[] = {
      {"Valid", 40, 8, 77, true, at - 4096, 1, true, ""},
      {"BackLinkNotCompared", 24, 8, 99, true, 0, 1, true, ""},
      {"BackLink", 24, 8, 99, true, at - 4096, 1, false, ": MetaError: Previous block offset is invalid: prev:0x"},
      {"Checksum", 4, 8, 99, false, 1, 1, false, ": MetaError: Checksum mismatch. stored:0x"},
      {"Version", 0, 2, 2, true, 0, 1, false, ""},
      {"Kind", 2, 2, 1, true, 0, 1, false, ""},
      {"Magic", 4, 8, 1, true, 0, 1, false, ""},
      {"OtherLog", 40, 8, 0, true, 0, 2, false, ""},
      {"NextNowhere", 16, 8, sample::kNoBlk, true, 0, 1, false, ""},
      {"NextAtTheStart", 16, 8, kStart, true, 0, 1, true, ""},
      {"NextBelowTheStart", 16, 8, kStart - 1, true, 0, 1, false, ""},
      {"NextAtTheEnd", 16, 8, kStart + kLength, true, 0, 1, false, ""},
      {"NextLast", 16, 8, kStart + kLength - 1, true, 0, 1, true, ""},
  };
  for (const auto& c : cases) {
    sample::DiskImage image = Ssd();
    if (c.width == 2) image.Put16(at + c.offset, static_cast<uint16_t>(c.value));
    if (c.width == 8) image.Put64(at + c.offset, c.value);
    if (c.seal) LogImage::SealBlock(image, blk);
    const std::vector<uint8_t> block = image.GetBytes(at, 4096);
    log_.Clear();
    EXPECT_EQ(KABSSDLOGCheckLogBlkHdr(ssd, block.data(), c.expectedPrev, c.logType), c.valid ? 1U : 0U) << c.name;
    if (*c.line != '\0') {
      EXPECT_THAT(log_.Text(), HasSubstr(c.line)) << c.name;
    } else {
      EXPECT_EQ(log_.Text(), "") << c.name;
    }
  }
}

TEST(EntryTest, PrefixesKeepTheirLimits) {
  const auto prefix = [](uint64_t low, uint32_t payload, uint32_t length, uint16_t version) {
    uint8_t entry[32] = {};
    std::memcpy(entry, &low, 8);
    std::memcpy(entry + 16, &payload, 4);
    std::memcpy(entry + 20, &length, 4);
    std::memcpy(entry + 28, &version, 2);
    return KABSSDLOGCheckLogEntryPrefix(nullptr, entry);
  };
  EXPECT_EQ(prefix(1, 4048, 4096, 1), 1U);
  EXPECT_EQ(prefix(1, 4049, 4096, 1), 0U);
  EXPECT_EQ(prefix(1, 0, 4097, 1), 0U);
  EXPECT_EQ(prefix(0, 0, 48, 1), 0U);
  EXPECT_EQ(prefix(1, 0, 48, 1), 1U);
  EXPECT_EQ(prefix(1, 0, 47, 1), 0U);
  EXPECT_EQ(prefix(1, 0xFFFFFFFF, 48, 1), 0U);
  EXPECT_EQ(prefix(1, 0, 48, 2), 0U);

  uint8_t operation[32] = {};
  operation[24] = 67;
  EXPECT_EQ(KABSSDLOGCheckOperationEntryPrefix(nullptr, operation), 1U);
  operation[24] = 68;
  EXPECT_EQ(KABSSDLOGCheckOperationEntryPrefix(nullptr, operation), 0U);
  operation[24] = 0, operation[31] = 1;
  EXPECT_EQ(KABSSDLOGCheckOperationEntryPrefix(nullptr, operation), 0U);

  for (uint8_t type = 0; type < 7; ++type) {
    const uint8_t header[8] = {1, 0, 1, 0, type};
    EXPECT_EQ(KABSSDLOGCheckPlogLogEntry(nullptr, header), type == 1 || type == 2 || type == 4 ? 1U : 0U) << type;
  }
  const uint8_t version[8] = {2, 0, 1, 0, 1};
  const uint8_t one[8] = {1, 0, 0, 0, 1};
  EXPECT_EQ(KABSSDLOGCheckPlogLogEntry(nullptr, version), 0U);
  EXPECT_EQ(KABSSDLOGCheckPlogLogEntry(nullptr, one), 0U);
}

TEST(BitCountTest, CountsLowBitsFirst) {
  std::mt19937_64 random(5);
  std::vector<uint8_t> bytes(40);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  uint64_t expected = 0;
  for (uint64_t bits = 0; bits <= 300; ++bits) {
    EXPECT_EQ(KABCountSetBitsInBuffer(bytes.data() + 1, bits), expected) << bits;
    expected += bytes[1 + bits / 8] >> (bits % 8) & 1U;
  }
  const uint8_t full = 0xFF;
  EXPECT_EQ(KABCountSetBitsInBuffer(&full, 3), 3U);
}

// The builder's plain loop against one chain, and against eight side by side.
TEST(MixChecksumTest, SideBySideIsTheSameAsOneByOne) {
  std::mt19937_64 random(9);
  std::vector<uint8_t> blocks(21 * 4096 + 1);
  for (uint8_t& byte : blocks) byte = static_cast<uint8_t>(random());
  const uint8_t* first = blocks.data() + 1;
  for (const uint32_t count : {0U, 1U, 7U, 8U, 9U, 21U}) {
    std::vector<uint64_t> sums(count);
    kab::ssdlog::BlockChecksums(first, count, sums.data());
    for (uint32_t i = 0; i < count; ++i) {
      const uint8_t* block = first + uint64_t{i} * 4096;
      EXPECT_EQ(sums[i], sample::MixBlock({block, 4096})) << i << " of " << count;
      EXPECT_EQ(kab::ssdlog::BlockChecksum(block), sums[i]);
    }
  }
}

}  // namespace
