// Dump files as they come out: layout, hash and counts, and what a failure leaves behind.

#include "kab/dump.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "dump_file.h"
#include "kab/core.h"
#include "kab/plinth.h"
#include "sample/disk_image.h"
#include "support/fault_shim.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using kab_test::Blob;
using kab_test::File;
using kab_test::Get;
using kab_test::Noise;
using kab_test::ParsedDump;
using kab_test::Record;
using testing::HasSubstr;

struct FreeDump {
  void operator()(KABDumpCtx* dump) const { KABFree(&dump); }
};
using Dump = std::unique_ptr<KABDumpCtx, FreeDump>;

class DumpWriterTest : public testing::Test {
 protected:
  DumpWriterTest() { kab_test::WriteFile(device_, Noise(kDeviceSize, 1)); }
  ~DumpWriterTest() override { KabFaultPlan(nullptr, nullptr); }

  Dump Create() { return Dump(KABInitDumpFile(path_.c_str(), device_.c_str(), kDeviceSize)); }
  ParsedDump Parse() { return ParsedDump(kab_test::ReadFile(path_)); }
  /// The first eight bytes of the file: all zero until a dump is closed well.
  uint64_t Magic() {
    const Blob file = kab_test::ReadFile(path_);
    return file.size() < 8 ? 0 : Get(file, 0, 8);
  }
  static uint32_t AddText(KABDumpCtx* dump, const std::string& text, uint64_t offset) {
    return KABAddBufferToDump(dump, text.data(), static_cast<uint32_t>(text.size()), offset);
  }

  static constexpr uint64_t kDeviceSize = 1 << 20;
  kab_test::TempDir dir_;
  kab_test::LogCapture log_;
  std::string device_ = dir_.File("source disk");
  std::string path_ = dir_.File("dump");
};

TEST_F(DumpWriterTest, HeaderAndRecordsAreWhereTheyBelong) {
  const auto micros = [] {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
  };
  const uint64_t before = micros();
  const Dump dump = Create();
  ASSERT_NE(dump, nullptr);
  const uint64_t after = micros();
  EXPECT_EQ(std::filesystem::file_size(path_), 0u);
  EXPECT_EQ(AddText(dump.get(), "hello", 0x123456789ABCDEF0), KAB_OK);
  EXPECT_EQ(AddText(dump.get(), "", 7), KAB_OK);
  EXPECT_EQ(AddText(dump.get(), "world!", 1), KAB_OK);
  EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_OK);

  const ParsedDump parsed = Parse();
  EXPECT_EQ(parsed.records,
            (std::vector<Record>{
                {0x123456789ABCDEF0, {'h', 'e', 'l', 'l', 'o'}}, {7, {}}, {1, {'w', 'o', 'r', 'l', 'd', '!'}}}));
  EXPECT_EQ(Get(parsed.header, 0, 4), 0xCC0000CCu);
  EXPECT_EQ(Get(parsed.header, 4, 4), 1u);
  EXPECT_EQ(Get(parsed.header, 8, 8), 3u);
  EXPECT_EQ(Get(parsed.header, 16, 8), kDeviceSize);
  EXPECT_EQ(Get(parsed.header, 24, 8), 3 * 12 + 11u);
  EXPECT_GE(Get(parsed.header, 32, 8), before);
  EXPECT_LE(Get(parsed.header, 32, 8), after);
  EXPECT_TRUE(std::equal(parsed.sha256.begin(), parsed.sha256.end(), parsed.header.begin() + 40));
  Blob name(4096 - 72);
  std::memcpy(name.data(), "source disk", 11);
  EXPECT_EQ(Blob(parsed.header.begin() + 72, parsed.header.end()), name);
  struct stat info = {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777 & ~0644u, 0u);
  EXPECT_EQ(log_.Text(), "");

  EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_GENERAL_FAILURE);
  EXPECT_EQ(AddText(dump.get(), "late", 1), KAB_GENERAL_FAILURE);
}

TEST_F(DumpWriterTest, AnEmptyDumpIsADump) {
  const Dump dump = Create();
  EXPECT_EQ(Magic(), 0u);
  EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_OK);
  const ParsedDump parsed = Parse();
  EXPECT_EQ(Get(parsed.header, 8, 8), 0u);
  EXPECT_EQ(Get(parsed.header, 24, 8), 0u);
  EXPECT_EQ(Get(parsed.header, 40, 8), 0x141cfc9842c4b0e3u);  // the SHA-256 of nothing begins e3b0c442 98fc1c14
  EXPECT_TRUE(parsed.raw.empty());
}

TEST_F(DumpWriterTest, ALongNameFillsItsField) {
  for (const size_t length : {127u, 128u, 200u}) {
    const std::string name(length, 'n');
    kab_test::WriteFile(dir_.File(name), {1});
    const std::string path = dir_.File("of" + std::to_string(length));
    const Dump dump(KABInitDumpFile(path.c_str(), dir_.File(name).c_str(), 1));
    EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_OK);
    const Blob header = ParsedDump(kab_test::ReadFile(path)).header;
    Blob field(136);
    std::memset(field.data(), 'n', std::min<size_t>(length, 128));
    EXPECT_EQ(Blob(header.begin() + 72, header.begin() + 72 + 136), field) << length;
  }
}

TEST_F(DumpWriterTest, RangesAreCutIntoPieces) {
  const Blob device = kab_test::ReadFile(device_);
  const File file(device_, O_RDONLY);
  KABDiskCtx disk{};
  disk.fd = static_cast<int32_t>(file.fd());
  const struct {
    uint64_t offset;
    uint32_t length;
    std::vector<uint32_t> pieces;
  } cases[] = {{0, 262145, {262144, 1}}, {1, 262144, {262144}}, {5, 0, {}}, {524287, 524289, {262144, 262144, 1}}};
  const Dump dump = Create();
  std::vector<Record> expected;
  for (const auto& c : cases) {
    EXPECT_EQ(KABAddChunkToDump(dump.get(), &disk, c.length, c.offset), KAB_OK);
    uint64_t at = c.offset;
    for (const uint32_t piece : c.pieces) {
      const auto data = device.begin() + static_cast<ptrdiff_t>(at);
      expected.push_back({at, Blob(data, data + piece)});
      at += piece;
    }
  }
  EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_OK);
  const ParsedDump parsed = Parse();
  EXPECT_TRUE(parsed.records == expected);
  EXPECT_EQ(Get(parsed.header, 8, 8), expected.size());
  EXPECT_EQ(Get(parsed.header, 24, 8), parsed.raw.size());
  EXPECT_TRUE(std::equal(parsed.sha256.begin(), parsed.sha256.end(), parsed.header.begin() + 40));
}

TEST_F(DumpWriterTest, AFailedReadLeavesTheDumpWhole) {
  const File file(device_, O_RDONLY);
  KABDiskCtx disk{};
  disk.fd = static_cast<int32_t>(file.fd());
  const Dump dump = Create();
  EXPECT_EQ(KABAddChunkToDump(dump.get(), &disk, 400000, kDeviceSize - 300000), KAB_GENERAL_FAILURE);
  EXPECT_EQ(log_.Text(),
            "Error: Failed to read data from the disk: IO Error\n"
            "Error: Failed to add chunk at offset 1010720 into dump file. Error General failure.\n");
  log_.Clear();
  KabFaultPlan("pread@2=EIO", nullptr);
  EXPECT_EQ(KABAddChunkToDump(dump.get(), &disk, 600000, 0), KAB_GENERAL_FAILURE);
  EXPECT_THAT(log_.Text(), HasSubstr("chunk at offset 262144 into"));
  log_.Clear();
  KabFaultPlan("calloc@2=ENOMEM", nullptr);
  EXPECT_EQ(KABAddChunkToDump(dump.get(), &disk, 600000, 0), KAB_OUT_OF_MEMORY);
  EXPECT_EQ(log_.Text(), "Error: Failed to add chunk at offset 262144 into dump file. Error Out of memory.\n");
  log_.Clear();
  KabFaultPlan(nullptr, nullptr);
  EXPECT_EQ(KABAddChunkToDump(dump.get(), &disk, 1, UINT64_MAX - 1), KAB_GENERAL_FAILURE);
  EXPECT_THAT(log_.Text(), HasSubstr("Error: Failed to read data from the disk: IO Error\n"));
  log_.Clear();
  EXPECT_EQ(KABAddChunkToDump(dump.get(), &disk, 2, UINT64_MAX - 1), KAB_GENERAL_FAILURE);
  EXPECT_EQ(log_.Text(),
            "Error: Failed to add chunk at offset 18446744073709551614 into dump file. Error General failure.\n");
  EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_OK);
  const ParsedDump parsed = Parse();
  ASSERT_EQ(parsed.records.size(), 3u);
  EXPECT_EQ(parsed.records[0].offset, kDeviceSize - 300000);
  EXPECT_EQ(parsed.records[0].data.size(), 262144u);
  EXPECT_TRUE(std::equal(parsed.sha256.begin(), parsed.sha256.end(), parsed.header.begin() + 40));
}

int64_t ServeDek(uint32_t, const uint64_t args[6], int64_t*) {
  const sample::Dek dek = sample::MakeDek(1);
  std::memcpy(reinterpret_cast<void*>(args[3]), dek.data(), std::min<size_t>(args[4], dek.size()));
  return 0;
}

TEST_F(DumpWriterTest, AnEncryptedDiskIsDumpedInClear) {
  const uint64_t data = sample::kDataOffset;
  sample::DiskImage image;
  image.FillNoise(data, 65536, 9).Encrypt(sample::MakeDek(1));
  const std::string path = image.Write(dir_.File("encrypted"));
  plinth_SetKeyCacheSyscall(ServeDek);
  KABDiskCtx* disk = KABOpenDisk(path.c_str(), O_RDONLY, nullptr, 0);
  ASSERT_NE(disk, nullptr) << log_.Text();
  const Dump dump = Create();
  EXPECT_EQ(KABAddChunkToDump(dump.get(), disk, 5000, data + 1000), KAB_OK) << log_.Text();
  EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_OK);
  EXPECT_EQ(KABCloseDisk(disk), KAB_OK);
  KABFree(&disk);
  plinth_SetKeyCacheSyscall(nullptr);
  EXPECT_TRUE(Parse().records == (std::vector<Record>{{data + 1000, image.GetBytes(data + 1000, 5000)}}));
}

TEST_F(DumpWriterTest, ADumpThatCannotBeMadeLeavesNothing) {
  const std::string none = dir_.File("none");
  EXPECT_EQ(KABInitDumpFile(path_.c_str(), none.c_str(), 1), nullptr);
  EXPECT_THAT(log_.Text(), HasSubstr("is not a valid absolute or relative path\n"));
  log_.Clear();
  EXPECT_EQ(KABInitDumpFile(dir_.File("no/where").c_str(), device_.c_str(), 1), nullptr);
  EXPECT_EQ(log_.Text(), "Error: Failed to create dump file : No such file or directory\n");
  log_.Clear();
  KabFaultPlan("open@1=EROFS", path_.c_str());
  EXPECT_EQ(Create(), nullptr);
  EXPECT_EQ(log_.Text(), "Error: Failed to create dump file : Read-only file system\n");
  KabFaultPlan(nullptr, nullptr);
  log_.Clear();

  kab_test::WriteFile(path_, {1, 2, 3});
  EXPECT_EQ(Create(), nullptr);
  EXPECT_EQ(log_.Text(), "Error: Failed to create dump file : File exists\n");
  EXPECT_EQ(kab_test::ReadFile(path_), (Blob{1, 2, 3}));
  unlink(path_.c_str());

  for (int nth = 1;; ++nth) {
    ASSERT_LT(nth, 20);
    log_.Clear();
    KabFaultPlan(("calloc@" + std::to_string(nth) + "=ENOMEM").c_str(), nullptr);
    const Dump dump = Create();
    if (dump != nullptr) {
      EXPECT_GT(nth, 6);
      EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_OK);
      break;
    }
    EXPECT_FALSE(std::filesystem::exists(path_)) << nth;
    // The record, its lock, the three blocks of a stream, and what zlib takes.
    EXPECT_EQ(log_.Text(), nth == 1   ? "Error: Failed to allocate dump context for " + path_ + "\n"
                           : nth == 2 ? "Error: Failed to create exclusive lock.\n"
                           : nth <= 5 ? "Error: Failed to init compression context\n"
                                      : "Error: deflateInit failure.\nError: Failed to init compression context\n")
        << nth;
  }
}

TEST_F(DumpWriterTest, AFailedAppendSpoilsTheDumpForGood) {
  const Dump dump = Create();
  EXPECT_EQ(AddText(dump.get(), "early", 0), KAB_OK);
  const Blob noise = Noise(9 << 20, 2);
  KabFaultPlan("pwrite@1=ENOSPC", nullptr);
  EXPECT_EQ(KABAddBufferToDump(dump.get(), noise.data(), static_cast<uint32_t>(noise.size()), 0), KAB_GENERAL_FAILURE);
  EXPECT_THAT(log_.Text(), HasSubstr("Error: KABCompressCheckOutput failed: General failure\n"));
  log_.Clear();
  EXPECT_EQ(AddText(dump.get(), "x", 0), KAB_GENERAL_FAILURE);
  const File file(device_, O_RDONLY);
  KABDiskCtx disk{};
  disk.fd = static_cast<int32_t>(file.fd());
  EXPECT_EQ(KABAddChunkToDump(dump.get(), &disk, 1, 0), KAB_GENERAL_FAILURE);
  EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_GENERAL_FAILURE);
  EXPECT_THAT(log_.Text(), HasSubstr("Error: Failed to write compressed data to dump file: General failure\n"));
  EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_GENERAL_FAILURE);
  EXPECT_EQ(Magic(), 0u);
}

TEST_F(DumpWriterTest, AFailedCloseSaysWhatFailed) {
  const struct {
    const char* name;
    const char* plan;
    uint32_t status;
    uint64_t magic;
    std::string log;
  } cases[] = {
      {"Stream", "pwrite@1=ENOSPC", 2, 0,
       "Error: Failed to write compressed data to file: IO Error\n"
       "Error: KABCompressCheckOutput failed: General failure\n"
       "Error: Failed to write compressed data to dump file: General failure\n"},
      {"Header", "pwrite@2=EIO", 1, 0, "Error: Failed to update dump file header: IO Error\n"},
      {"Descriptor", "close@1=EDQUOT", 2, 0x1CC0000CC, "Error: Failed to close dump file : Disk quota exceeded\n"},
      {"HeaderAndDescriptor", "pwrite@2=EIO,close@1=EIO", 2, 0,
       "Error: Failed to update dump file header: IO Error\n"
       "Error: Failed to close dump file : Input/output error\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Dump dump = Create();
    EXPECT_EQ(AddText(dump.get(), "text", 0), KAB_OK);
    KabFaultPlan(c.plan, nullptr);
    EXPECT_EQ(KABCloseDumpFile(dump.get()), c.status);
    EXPECT_EQ(log_.Text(), c.log);
    EXPECT_EQ(Magic(), c.magic);
    KabFaultPlan(nullptr, nullptr);
    EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_GENERAL_FAILURE);  // releases what a failed stream left open
    unlink(path_.c_str());
    log_.Clear();
  }
}

TEST_F(DumpWriterTest, AFullDiskIsNoticed) {
  const std::string mountPoint = dir_.File("small");
  ASSERT_EQ(mkdir(mountPoint.c_str(), 0755), 0);
  if (mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=4m") != 0) GTEST_SKIP() << "may not mount a small disk";
  {
    const std::string path = mountPoint + "/dump";
    const Dump dump(KABInitDumpFile(path.c_str(), device_.c_str(), 1));
    const Blob noise = Noise(5 << 20, 2);
    uint32_t st = KABAddBufferToDump(dump.get(), noise.data(), static_cast<uint32_t>(noise.size()), 0);
    EXPECT_EQ(st, KAB_OK);  // still in the buffer
    EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_GENERAL_FAILURE);
    EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_GENERAL_FAILURE);
    EXPECT_THAT(log_.Text(), HasSubstr("Error: Failed to write compressed data to dump file: General failure\n"));
    const Blob file = kab_test::ReadFile(path);
    EXPECT_TRUE(file.size() < 4 || Get(file, 0, 4) == 0);
  }
  EXPECT_EQ(umount(mountPoint.c_str()), 0);
}

TEST_F(DumpWriterTest, RecordsOfThreadsDoNotMix) {
  const File file(device_, O_RDONLY);
  KABDiskCtx disk{};
  disk.fd = static_cast<int32_t>(file.fd());
  const Dump dump = Create();
  constexpr uint64_t kThreads = 4, kEach = 200;
  std::vector<std::thread> threads;
  for (uint64_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (uint64_t i = 0; i < kEach; ++i) {
        const Blob data(17 * t + i % 50, static_cast<uint8_t>(t));
        KABAddBufferToDump(dump.get(), data.data(), static_cast<uint32_t>(data.size()), t << 32 | i);
      }
      KABAddChunkToDump(dump.get(), &disk, 300000, 0);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(KABCloseDumpFile(dump.get()), KAB_OK);
  const ParsedDump parsed = Parse();
  ASSERT_EQ(parsed.records.size(), kThreads * (kEach + 2));
  EXPECT_EQ(Get(parsed.header, 8, 8), parsed.records.size());
  EXPECT_TRUE(std::equal(parsed.sha256.begin(), parsed.sha256.end(), parsed.header.begin() + 40));
  uint64_t next[kThreads] = {};
  for (const Record& record : parsed.records) {
    if (record.data.size() > 30000) continue;
    const uint64_t t = record.offset >> 32, i = record.offset & 0xFFFFFFFF;
    EXPECT_EQ(i, next[t]++);
    EXPECT_EQ(record.data, Blob(17 * t + i % 50, static_cast<uint8_t>(t)));
  }
}

TEST(DumpNameTest, JoinsItsTextsAndTheLocalTime) {
  const struct {
    const char *directory, *begin;
  } cases[] = {{"/tmp", "/tmp/ssd_plog_"}, {"/tmp/", "/tmp/ssd_plog_"}, {"/", "/ssd_plog_"}, {"", "/ssd_plog_"}};
  for (const auto& c : cases) {
    std::string earlier, later;
    char* name = nullptr;
    const auto now = [&] {
      const time_t seconds = std::time(nullptr);
      std::string text = std::asctime(std::localtime(&seconds));
      for (char& letter : text) letter = letter == ' ' ? '_' : letter;
      return c.begin + text.substr(0, 24);
    };
    earlier = now();
    ASSERT_EQ(KABGenerateDumpFileName(c.directory, "ssd", "plog", &name), KAB_OK);
    later = now();
    EXPECT_TRUE(name == earlier || name == later) << name << " is not " << earlier;
    KABFree(&name);
  }
}

TEST(DumpNameTest, OutOfMemory) {
  char kept = 'x';
  char* name = &kept;
  KabFaultPlan("calloc@1=ENOMEM", nullptr);
  EXPECT_EQ(KABGenerateDumpFileName("a", "b", "c", &name), KAB_OUT_OF_MEMORY);
  EXPECT_EQ(name, &kept);
  KabFaultPlan("calloc@2=ENOMEM", nullptr);
  EXPECT_EQ(KABGenerateDumpFileName("a", "b", "c", &name), KAB_OUT_OF_MEMORY);
  EXPECT_EQ(name, nullptr);
  KabFaultPlan(nullptr, nullptr);
}

}  // namespace
