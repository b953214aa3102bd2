// What a caller's write routine is handed, and what its answer leads to.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "kab/kab.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

uint32_t answer;
std::vector<std::vector<uint8_t>> taken;

uint32_t Take(uint32_t, void* data, uint32_t length, uint64_t) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  taken.emplace_back(bytes, bytes + length);
  KABFree(&data);
  return answer;
}

TEST(ExtractCallbackTest, OwnsItsBuffersAndMayReturnAnyNumber) {
  kab_test::LogCapture log;
  const kab_test::TempDir dir;
  kab_test::WriteFile(dir.File("disk"), {1});
  const std::string path = dir.File("dump");
  KABDumpCtx* dump = KABInitDumpFile(path.c_str(), dir.File("disk").c_str(), 1);
  ASSERT_NE(dump, nullptr) << log.Text();
  const std::vector<std::vector<uint8_t>> records = {std::vector<uint8_t>((1 << 20) + 1, 7), {}, {1, 2, 3}, {}};
  for (const auto& bytes : records) {
    ASSERT_EQ(KABAddBufferToDump(dump, bytes.data(), static_cast<uint32_t>(bytes.size()), 0), KAB_OK);
  }
  ASSERT_EQ(KABCloseDumpFile(dump), KAB_OK);
  KABFree(&dump);

  const int fd = open(path.c_str(), O_RDONLY);
  const struct {
    uint32_t status;
    const char* text;
  } cases[] = {{0, nullptr},
               {13, "Not found"},
               {19, "General failure"},
               {0xbad0088, "General failure"},
               {UINT32_MAX, "General failure"}};
  for (const auto& c : cases) {
    log.Clear();
    taken.clear();
    answer = c.status;
    EXPECT_EQ(KABExtractDumpToDisk(static_cast<uint32_t>(fd), 0, 0, Take), c.status);
    if (c.status == 0) {
      EXPECT_EQ(taken, records);
      continue;
    }
    EXPECT_EQ(taken.size(), 1U) << c.status;
    EXPECT_EQ(log.Text(), std::string("disk: Extracting chunk number (0/4)\n") +
                              "Error: Failed to extract all the chunks from dump file : " + c.text + "\n");
  }
  close(fd);
}

}  // namespace
