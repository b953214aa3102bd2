// Replaying dumps: whole ones give the source's bytes back, forged ones a status and never a crash.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "dump_file.h"
#include "kab/core.h"
#include "kab/dump.h"
#include "support/fault_shim.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using kab_test::Blob;
using kab_test::DumpFile;
using kab_test::File;
using kab_test::Noise;
using testing::HasSubstr;

constexpr char kMismatch[] = "Error: Total Hash mismatch for dump, extracted dump might not be usable\n";
constexpr char kFirstLine[] = "disk: Extracting chunk number (0/2)\n";

class ExtractTest : public testing::Test {
 protected:
  ~ExtractTest() override { KabFaultPlan(nullptr, nullptr); }

  uint32_t Extract(const Blob& dump, uint8_t truncate = 0, KABExtractWriteFn write = nullptr) {
    kab_test::WriteFile(dir_.File("dump"), dump);
    const File source(dir_.File("dump"), O_RDONLY);
    const File target(target_);
    return KABVerifyAndExtractDump(source.fd(), target.fd(), truncate, write);
  }

  kab_test::TempDir dir_;
  kab_test::LogCapture log_;
  std::string target_ = dir_.File("target");
};

TEST_F(ExtractTest, TheSourceComesBack) {
  // Random ranges of a random disk, overlapping and of all sizes, the longest beyond the extractor's own pieces.
  std::mt19937_64 random(3);
  const Blob source = Noise(6 << 20, 4);
  Blob expected(source.size());
  const std::string device = dir_.File("device");
  kab_test::WriteFile(device, source);
  const File file(device, O_RDONLY);
  KABDiskCtx disk{};
  disk.fd = static_cast<int32_t>(file.fd());
  KABDumpCtx* dump = KABInitDumpFile(dir_.File("dump").c_str(), device.c_str(), source.size());
  ASSERT_NE(dump, nullptr);
  for (int i = 0; i < 40; ++i) {
    const uint64_t offset = random() % source.size();
    const uint64_t limit = i % 10 == 0 ? 4 << 20 : i % 3 == 0 ? 300000 : 600;
    const auto length = static_cast<uint32_t>(std::min(source.size() - offset, random() % limit));
    if (i % 2 == 0) {
      ASSERT_EQ(KABAddChunkToDump(dump, &disk, length, offset), KAB_OK);
    } else {
      ASSERT_EQ(KABAddBufferToDump(dump, source.data() + offset, length, offset), KAB_OK);
    }
    std::copy_n(source.begin() + static_cast<ptrdiff_t>(offset), length,
                expected.begin() + static_cast<ptrdiff_t>(offset));
  }
  ASSERT_EQ(KABAddBufferToDump(dump, source.data(), 3 << 20, 0), KAB_OK);
  std::copy_n(source.begin(), 3 << 20, expected.begin());
  ASSERT_EQ(KABCloseDumpFile(dump), KAB_OK);
  KABFree(&dump);

  const File from(dir_.File("dump"), O_RDONLY);
  const File to(target_);
  EXPECT_EQ(KABExtractDumpToDisk(from.fd(), to.fd(), 1, nullptr), KAB_OK);
  EXPECT_TRUE(kab_test::ReadFile(target_) == expected);
  EXPECT_THAT(log_.Text(), testing::MatchesRegex("device: Extracting chunk number \\(0/[0-9]+\\)\n"));
}

TEST_F(ExtractTest, ForgedDumpsAreRefused) {
  const Blob small = {'a', 'b', 'c'};
  const Blob noise = Noise(3000, 1);
  const auto two = [&] { return DumpFile().Add(5, small).Add(100, noise); };
  const struct {
    const char* name;
    Blob dump;
    uint32_t status;
    std::string log;
    size_t size;  // of the target
  } cases[] = {
      {"Whole", two().Bytes(), 0, kFirstLine, 3100},
      {"HashFlipped", two().FlipHash().Bytes(), 2, kFirstLine + std::string(kMismatch), 3100},
      {"DataFlipped", two().FlipRaw(12 + 3 + 12 + 7).Bytes(), 2, kFirstLine + std::string(kMismatch), 3100},
      {"CountOneTooLow", two().Count(1).Bytes(), 2, "disk: Extracting chunk number (0/1)\n" + std::string(kMismatch),
       8},
      {"CountOneTooHigh", two().Count(3).Bytes(), 2,
       "disk: Extracting chunk number (0/3)\nError: Hit postponed error 1.\n", 3100},
      {"CountAllOnes", two().Count(UINT64_MAX).Bytes(), 2,
       "disk: Extracting chunk number (0/18446744073709551615)\nError: Hit postponed error 1.\n", 3100},
      {"CountZero", two().Count(0).Bytes(), 2, kMismatch, 0},
      {"HalfAHead", DumpFile().Add(5, small).AddBytes({1, 2, 3, 4, 5}).Bytes(), 2, kFirstLine, 8},
      {"LengthOneTooLong", DumpFile().Add(5, small).AddHead(9, 4, small).Bytes(), 2, kFirstLine, 8},
      {"LengthAllOnes", DumpFile().Add(5, small).AddHead(9, UINT32_MAX, small).Bytes(), 2, kFirstLine, 8},
      {"OffsetAllOnes", DumpFile().Add(5, small).Add(UINT64_MAX, small).Bytes(), 1, kFirstLine, 8},
      {"StreamCut", two().CutStream(500).Bytes(), 2, kFirstLine, 8},
      {"TrailerCut", two().CutStream(3).Bytes(), 0, kFirstLine, 3100},  // the hash vouches for every byte
      {"TrailerFlipped", two().FlipAdler().Bytes(), 0, kFirstLine, 3100},
      {"BytesBehind", two().Append(noise).Bytes(), 0, kFirstLine, 3100},
      {"BytesBehindAndCount", two().Append(noise).Count(3).Bytes(), 2,
       "disk: Extracting chunk number (0/3)\nError: Hit postponed error 1.\n", 3100},
      {"NoStream", two().Stream({}).Bytes(), 2, kFirstLine, 0},
      {"GarbageStream", two().Stream(noise).Bytes(), 2, kFirstLine, 0},
      {"EmptyRecordLast", DumpFile().Add(5, small).Add(9, {}).Bytes(), 0, kFirstLine, 8},
      {"EmptyDump", DumpFile().Bytes(), 0, "", 0},
      {"EmptyFile", {}, 2, kMismatch, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log_.Clear();
    unlink(target_.c_str());
    EXPECT_EQ(Extract(c.dump), c.status);
    EXPECT_EQ(log_.Text(), c.log);
    EXPECT_EQ(kab_test::ReadFile(target_).size(), c.size);
  }
}

TEST_F(ExtractTest, AShortHeaderNeverPasses) {
  const Blob whole = DumpFile().Bytes();  // no records: only the header speaks
  for (const size_t size : {7u, 16u, 71u, 72u, 199u}) {
    EXPECT_NE(Extract(Blob(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size))), KAB_OK) << size;
  }
  EXPECT_EQ(Extract(Blob(whole.begin(), whole.begin() + 200)), KAB_OK);
  KabFaultPlan("pread@1=EIO", nullptr);
  EXPECT_EQ(Extract(DumpFile().Add(1, {1}).Bytes()), KAB_GENERAL_FAILURE);
}

TEST_F(ExtractTest, AForgedLengthTakesNoMemory) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's own memory does not fit under a limit";
#endif
  const Blob dump = DumpFile().AddHead(0, UINT32_MAX, Noise(100, 1)).Bytes();
  rlimit former = {};
  getrlimit(RLIMIT_DATA, &former);
  const rlimit tight = {512 << 20, former.rlim_max};
  setrlimit(RLIMIT_DATA, &tight);
  const uint32_t st = Extract(dump);
  setrlimit(RLIMIT_DATA, &former);
  EXPECT_EQ(st, KAB_GENERAL_FAILURE);
}

TEST_F(ExtractTest, OutOfMemoryIsTold) {
  const Blob dump = DumpFile().Add(0, Noise(5 << 20, 1)).Add(1, {}).Bytes();
  bool done = false;
  for (int nth = 1; !done; ++nth) {
    ASSERT_LT(nth, 20);
    log_.Clear();
    KabFaultPlan(("calloc@" + std::to_string(nth) + "=ENOMEM").c_str(), nullptr);
    const uint32_t st = Extract(dump);
    done = KabFaultCalls("calloc") < static_cast<unsigned long>(nth);
    KabFaultPlan(nullptr, nullptr);
    if (done) {
      EXPECT_GT(nth, 6);
      EXPECT_EQ(st, KAB_OK);
    } else if (nth <= 4) {  // the stream: the header's status is the result
      EXPECT_EQ(st, KAB_OK) << nth;
      EXPECT_EQ(log_.Text(), "Error: Failed to init decompression context\n") << nth;
    } else {  // zlib's window, and then the data
      EXPECT_TRUE(st == KAB_OUT_OF_MEMORY || st == KAB_GENERAL_FAILURE) << nth;
    }
  }
}

TEST_F(ExtractTest, ProgressEveryTenThousandRecords) {
  DumpFile dump;
  for (uint64_t i = 0; i < 20001; ++i) dump.Add(i * 2, {static_cast<uint8_t>(i)});
  EXPECT_EQ(Extract(dump.Name(std::string(300, 'n')).Bytes()), KAB_OK);
  const std::string name(128, 'n');
  std::string lines;
  for (const char* i : {"0", "10000", "20000"}) lines += name + ": Extracting chunk number (" + i + "/20001)\n";
  EXPECT_EQ(log_.Text(), lines);
  EXPECT_EQ(std::filesystem::file_size(target_), 40001u);
}

TEST_F(ExtractTest, TruncateGivesTheSourcesLength) {
  const Blob data = {1, 2, 3};
  EXPECT_EQ(Extract(DumpFile().Add(10, data).DiskSize(5000).Bytes(), 1), KAB_OK);
  EXPECT_EQ(std::filesystem::file_size(target_), 5000u);
  EXPECT_EQ(Extract(DumpFile().Add(10, data).DiskSize(100).Bytes(), 1), KAB_OK);
  EXPECT_EQ(std::filesystem::file_size(target_), 100u);
  EXPECT_EQ(Extract(DumpFile().Add(500, data).DiskSize(100).Bytes(), 1), KAB_OK);  // a record beyond it extends it
  EXPECT_EQ(std::filesystem::file_size(target_), 503u);
  EXPECT_EQ(Extract(DumpFile().Add(10, data).DiskSize(UINT64_MAX).Bytes(), 1), KAB_OK);  // a length that cannot be
  EXPECT_EQ(std::filesystem::file_size(target_), 503u);
}

TEST_F(ExtractTest, BeyondFourGibibytes) {
  const Blob data = Noise(100000, 6);
  const uint64_t far = 5ULL << 30;
  EXPECT_EQ(Extract(DumpFile().Add(far, data).DiskSize(6ULL << 30).Bytes(), 1), KAB_OK);
  EXPECT_EQ(std::filesystem::file_size(target_), 6ULL << 30);
  const File target(target_, O_RDONLY);
  Blob back(data.size());
  EXPECT_EQ(KABDiskRead(target.fd(), back.data(), static_cast<uint32_t>(back.size()), static_cast<int64_t>(far)),
            KAB_OK);
  EXPECT_TRUE(back == data);
}

TEST_F(ExtractTest, AFailedWriteStopsIt) {
  const Blob dump = DumpFile().Add(0, {1, 2}).Add(10, {3, 4}).Add(20, {5, 6}).Bytes();
  KabFaultPlan("pwrite@2=short", "/target");
  EXPECT_EQ(Extract(dump), KAB_IO_ERROR);
  KabFaultPlan(nullptr, nullptr);
  EXPECT_EQ(kab_test::ReadFile(target_).size(), 11u);
  EXPECT_EQ(log_.Text(), "disk: Extracting chunk number (0/3)\n");

  log_.Clear();
  const File source(dir_.File("dump"), O_RDONLY);
  const File target(target_, O_RDONLY);
  EXPECT_EQ(KABExtractDumpToDisk(source.fd(), target.fd(), 0, nullptr), KAB_IO_ERROR);
  EXPECT_EQ(log_.Text(),
            "disk: Extracting chunk number (0/3)\n"
            "Error: Failed to extract all the chunks from dump file : IO Error\n");
}

std::vector<kab_test::Record> taken;
uint32_t Take(uint32_t fd, void* data, uint32_t length, uint64_t offset) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  taken.push_back({offset, Blob(bytes, bytes + length)});
  KABFree(&data);
  return fd == 12345 && taken.size() == 3 ? KAB_NOT_FOUND : KAB_OK;
}

TEST_F(ExtractTest, ACallbackTakesTheRecordsOver) {
  const std::vector<kab_test::Record> records = {{1, {9}}, {2, {}}, {UINT64_MAX, Noise(3 << 20, 2)}, {4, {7, 7}}};
  DumpFile dump;
  for (const auto& record : records) dump.Add(record.offset, record.data);
  taken.clear();
  EXPECT_EQ(Extract(dump.Bytes(), 0, Take), KAB_OK);
  EXPECT_TRUE(taken == records);
  EXPECT_EQ(std::filesystem::file_size(target_), 0u);

  taken.clear();
  const File source(dir_.File("dump"), O_RDONLY);
  EXPECT_EQ(KABVerifyAndExtractDump(source.fd(), 12345, 0, Take), KAB_NOT_FOUND);
  EXPECT_EQ(taken.size(), 3u);
  taken.clear();
}

TEST_F(ExtractTest, HeaderIsReadInItsFirstBytesOnly) {
  const Blob dump = DumpFile().Add(1, {2}).Bytes();
  kab_test::WriteFile(dir_.File("dump"), dump);
  const File source(dir_.File("dump"), O_RDONLY);
  Blob header(201, 0xEE);
  EXPECT_EQ(KABReadDumpHeader(source.fd(), header.data()), KAB_OK);
  EXPECT_TRUE(std::equal(dump.begin(), dump.begin() + 200, header.begin()));
  EXPECT_EQ(header[200], 0xEE);
}

TEST_F(ExtractTest, TargetsAreOpenedOrMade) {
  const struct {
    const char* name;
    uint8_t exists, create;
    uint32_t status;
    uint8_t created;
  } cases[] = {
      {"Missing", 0, 0, 0, 1}, {"MissingAndNew", 0, 1, 0, 1}, {"Existing", 1, 0, 0, 0}, {"ExistingAndNew", 1, 1, 5, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log_.Clear();
    const std::string path = dir_.File(c.name);
    if (c.exists != 0) kab_test::WriteFile(path, {1, 2, 3});
    int32_t fd = -7;
    uint8_t create = c.create;
    EXPECT_EQ(KABOpenExtractDisk(path.c_str(), &fd, &create), c.status);
    EXPECT_EQ(create, c.created);
    if (c.status == KAB_OK) {
      EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_SYNC), O_RDWR | O_SYNC);
      close(fd);
      EXPECT_EQ(log_.Text(), "");
    } else {
      EXPECT_EQ(fd, 0);
      EXPECT_EQ(log_.Text(), "Error: Failed to open disk file " + path + " : File exists\n");
    }
    EXPECT_EQ(kab_test::ReadFile(path).size(), c.exists != 0 ? 3u : 0u);
  }
  log_.Clear();
  int32_t fd = -7;
  uint8_t create = 0;
  EXPECT_EQ(KABOpenExtractDisk(dir_.Path().c_str(), &fd, &create), KAB_OPEN_FAILED);
  EXPECT_EQ(log_.Text(), "Error: Failed to open disk file " + dir_.Path() + " : Is a directory\n");
}

}  // namespace
