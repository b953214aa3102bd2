// Status texts, memory hooks and plain transfers.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "core/frame/uuid_text.h"
#include "kab/kab.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

TEST(FrameTest, TablesAndArithmetic) {
  EXPECT_STREQ(KABErrorStr(0), "Successful");
  EXPECT_STREQ(KABErrorStr(11), "No valid SSDLOG CheckPoint record found");
  EXPECT_STREQ(KABErrorStr(18), "Failed to decompress");
  const uint32_t sizes[] = {40, 112, 56, 80, 48, 40, 64,  48,  56, 72, 56,  144, 136,
                            80, 72,  72, 80, 64, 88, 104, 144, 64, 96, 144, 64,  128};
  for (uint32_t type = 0; type < 26; ++type) EXPECT_EQ(KABARVOOpTypeToSize(type), sizes[type]) << type;
  const struct {
    uint32_t value, log;
  } logs[] = {{0, 0}, {1, 0}, {2, 1}, {3, 1}, {4096, 12}, {0x7FFFFFFF, 30}, {0xFFFFFFFF, 31}};
  for (const auto& c : logs) EXPECT_EQ(KABLog2(c.value), c.log) << c.value;
}

TEST(FrameTest, MemoryIsZeroedAndItsSlotCleared) {
  auto* block = static_cast<uint8_t*>(KABAlloc(1000));
  EXPECT_EQ(std::vector<uint8_t>(block, block + 1000), std::vector<uint8_t>(1000));
  KABFree(&block);
  EXPECT_EQ(block, nullptr);
  KABFree(&block);
  EXPECT_EQ(block, nullptr);
  void* wrapped = KABCompressAlloc(nullptr, 65536, 65536);  // the product wraps to 0
  EXPECT_NE(wrapped, nullptr);
  KABCompressFree(nullptr, wrapped);
  EXPECT_EQ(KABAlloc(UINT64_MAX), nullptr);
  KABExprFree(1, KABExprAlloc(1, 10));
}

TEST(FrameTest, UuidTextsGoBothWays) {
  uint8_t uuid[16];
  for (uint8_t i = 0; i < 16; ++i) uuid[i] = static_cast<uint8_t>(0xF0 + i);
  char text[KAB_UUID_TEXT_SIZE];
  kab::FormatUuid(uuid, text);
  EXPECT_STREQ(text, "f0f1f2f3-f4f5-f6f7-f8f9-fafbfcfdfeff");
  uint8_t back[16] = {};
  EXPECT_TRUE(kab::ParseUuid(text, back));
  EXPECT_EQ(std::memcmp(uuid, back, 16), 0);
  EXPECT_FALSE(kab::ParseUuid("f0f1f2f3-f4f5-f6f7-f8f9-fafbfcfdfe", back));
  EXPECT_FALSE(kab::ParseUuid("", back));
}

TEST(DiskIoTest, TransfersOnceAndCountsExactly) {
  kab_test::TempDir dir;
  const std::string path = dir.File("file");
  kab_test::WriteFile(path, std::vector<uint8_t>(5000, 7));
  const int fd = open(path.c_str(), O_RDWR);
  const auto descriptor = static_cast<uint32_t>(fd);
  uint8_t buf[4096] = {};
  const struct {
    const char* name;
    uint32_t direction, length;
    int64_t offset;
    uint32_t status;
  } cases[] = {{"Whole", 1, 4096, 0, 0},       {"PastTheEnd", 1, 4096, 4900, 1}, {"AtTheEnd", 1, 1, 5000, 1},
               {"Nothing", 1, 0, 4900, 0},     {"NegativeOffset", 1, 1, -1, 1},  {"DirectionTwoWrites", 2, 10, 5000, 0},
               {"WrittenNow", 1, 10, 5000, 0}, {"OtherWrite", 0, 1, -5, 1}};
  for (const auto& c : cases) {
    EXPECT_EQ(KABDiskIO(c.direction, descriptor, buf, c.length, c.offset), c.status) << c.name;
  }
  close(fd);
  EXPECT_EQ(KABDiskRead(descriptor, buf, 1, 0), KAB_IO_ERROR);
}

TEST(DeviceNameTest, ResolvesOrSaysWhyNot) {
  kab_test::LogCapture log;
  kab_test::TempDir dir;
  kab_test::WriteFile(dir.File("disk"), {1});
  ASSERT_EQ(symlink("disk", dir.File("link").c_str()), 0);
  char* base = nullptr;
  char* full = nullptr;
  ASSERT_EQ(KABExtractDeviceName(dir.File("link").c_str(), &full, &base), KAB_OK);
  EXPECT_STREQ(base, "disk");
  KABFree(&base);
  ASSERT_EQ(KABExtractDeviceName(dir.File("disk").c_str(), nullptr, nullptr), KAB_OK);
  EXPECT_EQ(log.Text(), "");

  const std::string missing = dir.File("none");
  EXPECT_EQ(KABExtractDeviceName(missing.c_str(), &full, &base), KAB_GENERAL_FAILURE);
  EXPECT_EQ(base, nullptr);
  EXPECT_EQ(full, nullptr);
  EXPECT_EQ(log.Text(), "Error: Device path name \"" + missing + "\" is not a valid absolute or relative path\n");
  log.Clear();
  const std::string through = dir.File("disk") + "/below";
  EXPECT_EQ(KABExtractDeviceName(through.c_str(), nullptr, &base), KAB_GENERAL_FAILURE);
  EXPECT_EQ(log.Text(), "Error: Failed to resolve device path " + through + "\n");
}

}  // namespace
