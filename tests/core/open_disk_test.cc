// Opening, attaching and closing disks: every refusal, every limit, every message.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>

#include "kab/kab.h"
#include "sample/disk_image.h"
#include "sample/group_image.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using sample::DiskImage;
using testing::HasSubstr;
using testing::StartsWith;

struct Close {
  void operator()(KABDiskCtx* ctx) const {
    if (KABCloseDisk(ctx) == KAB_OK) KABFree(&ctx);
  }
};
using Opened = std::unique_ptr<KABDiskCtx, Close>;

std::map<std::string, sample::Dek> keys;

int64_t ServeKey(uint32_t, const uint64_t args[6], int64_t*) {
  const auto found = keys.find(reinterpret_cast<const char*>(args[0]));
  if (found == keys.end()) return -1;
  std::memcpy(reinterpret_cast<void*>(args[3]), found->second.data(), found->second.size());
  return 0;
}

class OpenDiskTest : public testing::Test {
 protected:
  void SetUp() override {
    keys.clear();
    plinth_SetKeyCacheSyscall(ServeKey);
  }
  void TearDown() override { plinth_SetKeyCacheSyscall(nullptr); }

  // The context keeps the path's text, so that it has to live as long as the fixture.
  const char* Keep(std::string path) {
    return kept_.emplace_back(std::make_unique<std::string>(std::move(path)))->c_str();
  }
  const char* Write(const DiskImage& image) {
    return Keep(image.Write(dir_.File("disk" + std::to_string(kept_.size()))));
  }
  Opened Open(const DiskImage& image, KABDiskCtx* group = nullptr, uint8_t skip = 0) {
    return Opened(KABOpenDisk(Write(image), O_RDONLY, group, skip));
  }

  kab_test::LogCapture log_;
  kab_test::TempDir dir_;
  std::vector<std::unique_ptr<std::string>> kept_;
};

constexpr uint64_t kSmallest = 3145728 + 16896 + 1;

TEST_F(OpenDiskTest, KeepsItsLimits) {
  const struct {
    const char* name;
    uint64_t size;
    uint8_t version;
    uint32_t reserve;  // 0: refused
    const char* line;
  } cases[] = {
      {"NoMetadata", 1048576 + 4095, 0, 0, "Error: Failed to read Arvo metadata: IO Error\n"},
      {"OneByteTooSmall", kSmallest - 1, 0, 0, "is too small to be usable for Arvo\n"},
      {"OldestVersion", kSmallest, 0, 1048576, "reduced functionality\n"},
      {"FirstOfTheLargerReserve", kSmallest, 1, 4194304, "reduced functionality\n"},
      {"NewestVersion", kSmallest, 20, 4194304, "reduced functionality\n"},
      {"VersionTooNew", kSmallest, 21, 0, "Error: Unknown disk format version 21 on disk\n"},
  };
  for (const auto& c : cases) {
    log_.Clear();
    const Opened disk = Open(DiskImage().Size(c.size).FormatVersion(c.version));
    ASSERT_EQ(disk != nullptr, c.reserve != 0) << c.name << log_.Text();
    EXPECT_THAT(log_.Text(), HasSubstr(c.line)) << c.name;
    if (disk == nullptr) continue;
    EXPECT_EQ(disk->metaReserve, c.reserve) << c.name;
    EXPECT_EQ(disk->diskSize, c.size);
    EXPECT_EQ(disk->usableSize, c.size - 3145728 - 16896);
  }
}

TEST_F(OpenDiskTest, FillsTheContextByTheDisksLayout) {
  const auto own = sample::MakeUuid(5);
  const auto other = sample::MakeUuid(6);
  const Opened plain = Open(DiskImage().SetUuid(own).DedupMode(0));
  ASSERT_NE(plain, nullptr);
  EXPECT_EQ(plain->uuidText, sample::UuidText(own));
  EXPECT_STREQ(plain->altUuidText, "");
  EXPECT_EQ(plain->devIdx, -1);
  EXPECT_EQ(plain->metaOffset, 1048576U);
  EXPECT_EQ(plain->dataOffset, 3145728U);
  EXPECT_EQ(plain->sectorSize, 512U);
  EXPECT_EQ(plain->sectorShift, 9U);
  EXPECT_EQ(plain->logState, &plain->logStateArea);
  EXPECT_NE(plain->lock, nullptr);
  EXPECT_EQ(plain->path, *kept_.back());

  log_.Clear();
  const Opened second = Open(DiskImage().Type(11).SetUuid(own).AltUuid(other));
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->uuidText, sample::UuidText(own));
  EXPECT_EQ(second->altUuidText, sample::UuidText(other));
  EXPECT_EQ(log_.Text(), "");  // no group asked for, none missed

  const Opened ssd(KABOpenSSD(Write(DiskImage()), O_RDONLY, 0));
  ASSERT_NE(ssd, nullptr);
  EXPECT_EQ(ssd->logPositions[0], 0xFFFFFFFFFFFFU);
  for (int i = 1; i < 4; ++i) EXPECT_EQ(ssd->logPositions[i], UINT64_MAX);
}

TEST_F(OpenDiskTest, RefusesAMountedDiskUnlessToldNotTo) {
  for (const uint8_t type : {uint8_t{1}, uint8_t{11}}) {
    log_.Clear();
    DiskImage image;
    image.Type(type).MountState(0);
    EXPECT_EQ(Open(image), nullptr);
    EXPECT_EQ(log_.Text(), "Error: Failing open request as device " + *kept_.back() + " is not unmounted\n");
    log_.Clear();
    EXPECT_NE(Open(image, nullptr, 1), nullptr);
    EXPECT_THAT(log_.Text(), StartsWith("Error: Skipping unmount check, opening mounted disk " + *kept_.back() + "\n"));
  }
}

TEST_F(OpenDiskTest, SaysWhyAPathCannotBeOpened) {
  const std::string missing = dir_.File("none");
  EXPECT_EQ(KABOpenDisk(missing.c_str(), O_RDONLY, nullptr, 0), nullptr);
  EXPECT_EQ(log_.Text(), "Error: Failed to open device " + missing + ": " + std::strerror(ENOENT) + "\n");
  log_.Clear();
  EXPECT_EQ(KABOpenDisk(dir_.Path().c_str(), O_RDONLY, nullptr, 0), nullptr);
  EXPECT_EQ(log_.Text(),
            "Error: Failed to read Arvo metadata: IO Error\nError: Failed to read arvo metadata from disk " +
                dir_.Path() + "\n");
}

TEST_F(OpenDiskTest, AnEncryptedDiskOpensWithItsKeyOnly) {
  const auto uuid = sample::MakeUuid(9);
  const auto alt = sample::MakeUuid(10);
  const auto dek = sample::MakeDek(3);
  const std::vector<uint8_t> secret(3000, 0x5C);
  const auto check = [&](const DiskImage& image, const std::string& keyName) {
    log_.Clear();
    keys.clear();
    EXPECT_EQ(Open(image), nullptr);
    EXPECT_THAT(log_.Text(),
                HasSubstr(sample::UuidText(uuid) + ": Error: Could not find key in cache\n" + sample::UuidText(uuid) +
                          ": Error: Failed to get crypto key for encrypted disk\n" +
                          "Error: Failed to get decryption info for disk " + *kept_.back() + "\n"));
    keys[keyName] = dek;
    const Opened disk = Open(image);
    ASSERT_NE(disk, nullptr) << log_.Text();
    EXPECT_EQ(disk->encrypted, 1);
    EXPECT_EQ(KABUpdateDiskEncryptionInfo(disk.get(), nullptr), KAB_OK);  // again: the former key is released
    std::vector<uint8_t> buf(secret.size());
    ASSERT_EQ(KABRead(disk.get(), buf.data(), static_cast<uint32_t>(buf.size()), 3145728 + 777), KAB_OK);
    EXPECT_EQ(buf, secret);
  };
  const auto withSecret = [&](DiskImage image) { return image.PutBytes(3145728 + 777, secret).Encrypt(dek); };
  check(withSecret(DiskImage().SetUuid(uuid)), sample::UuidText(uuid));
  const DiskImage type11 = DiskImage().Type(11).SetUuid(uuid).AltUuid(alt);
  check(withSecret(type11), sample::UuidText(alt));
  check(withSecret(DiskImage(type11).KeyByOwnUuid(true)), sample::UuidText(uuid));
}

TEST_F(OpenDiskTest, AttachesDisksToTheirGroup) {
  sample::GroupImage image(7);
  const auto paths = image.Write(dir_.Path());
  Opened ssd(KABOpenSSD(paths.ssd.c_str(), O_RDONLY, 0));
  ASSERT_NE(ssd, nullptr);
  std::vector<Opened> disks;
  for (const std::string& path : paths.disks) disks.emplace_back(KABOpenDisk(path.c_str(), O_RDONLY, ssd.get(), 0));
  for (int32_t i = 0; i < 7; ++i) {
    ASSERT_NE(disks[static_cast<size_t>(i)], nullptr);
    EXPECT_EQ(disks[static_cast<size_t>(i)]->devIdx, i);
    EXPECT_EQ(disks[static_cast<size_t>(i)]->group, ssd.get());
    EXPECT_EQ(ssd->disks[i], disks[static_cast<size_t>(i)].get());
    EXPECT_EQ(disks[static_cast<size_t>(i)]->logPositions[0], 0xFFFFFFFFFFFFU);
  }
  EXPECT_EQ(ssd->openDiskCount, 7U);
  EXPECT_EQ(log_.Text(), "");

  EXPECT_EQ(Open(DiskImage().SetUuid(sample::MakeUuid(999)), ssd.get()), nullptr);
  EXPECT_EQ(log_.Text(), sample::UuidText(sample::MakeUuid(999)) +
                             ": Error: Too many open disk requests for Diskgroup " + ssd->uuidText + "\n");

  // A group with disks attached refuses to close and stays usable.
  EXPECT_EQ(KABCloseDisk(ssd.get()), KAB_BUSY);
  uint8_t byte;
  EXPECT_EQ(KABRead(ssd.get(), &byte, 1, 0), KAB_OK);

  disks[3].reset();
  EXPECT_EQ(ssd->openDiskCount, 6U);
  EXPECT_EQ(ssd->disks[3], nullptr);
  log_.Clear();
  EXPECT_EQ(Open(DiskImage().SetUuid(sample::MakeUuid(999)), ssd.get()), nullptr);
  EXPECT_EQ(log_.Text(), sample::UuidText(sample::MakeUuid(999)) + ": Error: Disk " + *kept_.back() +
                             " is not part of given diskgroup\n");
  log_.Clear();
  EXPECT_EQ(KABOpenDisk(paths.disks[2].c_str(), O_RDONLY, ssd.get(), 0), nullptr);
  EXPECT_EQ(log_.Text(), std::string(disks[2]->uuidText) + ": Error: Disk " + paths.disks[2] +
                             " is already open in this diskgroup\n");
  EXPECT_EQ(ssd->openDiskCount, 6U);
  disks[3].reset(KABOpenDisk(paths.disks[3].c_str(), O_RDONLY, ssd.get(), 0));
  EXPECT_NE(disks[3], nullptr);
  disks.clear();
  EXPECT_EQ(ssd->openDiskCount, 0U);
}

// A disk in replay's slot: its own state comes from the placeholder, or the group's does and the placeholder goes.
TEST_F(OpenDiskTest, TakesThePlaceOfAPlaceholder) {
  for (const uint8_t mode : {uint8_t{0}, uint8_t{2}}) {
    sample::GroupImage image(2);
    image.Disk(1).DedupMode(mode);
    const auto paths = image.Write(dir_.Path());
    const Opened ssd(KABOpenSSD(paths.ssd.c_str(), O_RDONLY, 0));
    ASSERT_NE(ssd, nullptr);
    auto* placeholder = static_cast<KABDiskCtx*>(KABAlloc(sizeof(KABDiskCtx)));
    placeholder->placeholder = 1;
    placeholder->group = ssd.get();
    placeholder->plogState = static_cast<KABPlogState*>(KABAlloc(sizeof(KABPlogState)));
    placeholder->plogState->owner = placeholder;
    ssd->disks[1] = placeholder;
    KABPlogState* left = placeholder->plogState;
    const Opened disk(KABOpenDisk(paths.disks[1].c_str(), O_RDONLY, ssd.get(), 0));
    ASSERT_NE(disk, nullptr) << log_.Text();
    EXPECT_EQ(ssd->disks[1], disk.get());
    EXPECT_EQ(ssd->openDiskCount, 1U);
    EXPECT_EQ(disk->plogState, mode == 2 ? nullptr : left);
    if (mode != 2) {
      EXPECT_EQ(disk->plogState->owner, disk.get());
    }
  }  // the leak check sees to the rest
}

TEST_F(OpenDiskTest, ASecondCloseDetachesNobody) {
  sample::GroupImage image(1);
  const auto paths = image.Write(dir_.Path());
  const Opened ssd(KABOpenSSD(paths.ssd.c_str(), O_RDONLY, 0));
  KABDiskCtx* first = KABOpenDisk(paths.disks[0].c_str(), O_RDONLY, ssd.get(), 0);
  ASSERT_NE(first, nullptr);
  ASSERT_EQ(KABCloseDisk(first), KAB_OK);
  const Opened second(KABOpenDisk(paths.disks[0].c_str(), O_RDONLY, ssd.get(), 0));
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(KABCloseDisk(first), KAB_OK);
  KABFree(&first);
  EXPECT_EQ(ssd->openDiskCount, 1U);
  EXPECT_EQ(ssd->disks[0], second.get());
}

TEST_F(OpenDiskTest, AFailedOpenLeavesNoDescriptorBehind) {
  const auto descriptors = [] {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) count += fcntl(fd, F_GETFD) != -1;
    return count;
  };
  const int before = descriptors();
  EXPECT_EQ(Open(DiskImage().FormatVersion(21)), nullptr);
  EXPECT_EQ(Open(DiskImage().EncryptedFlag(true)), nullptr);
  EXPECT_EQ(Open(DiskImage().MountState(0)), nullptr);
  EXPECT_EQ(descriptors(), before);
}

// A loop device where the machine gives one.
class LoopDevice {
 public:
  explicit LoopDevice(const std::string& file) {
    const std::string command = "losetup --find --show '" + file + "' 2>/dev/null";
    if (FILE* pipe = popen(command.c_str(), "r")) {
      char line[64] = {};
      if (std::fgets(line, sizeof line, pipe) != nullptr) path_ = std::string(line, std::strcspn(line, "\n"));
      pclose(pipe);
    }
  }
  ~LoopDevice() {
    if (!path_.empty() && std::system(("losetup -d " + path_).c_str()) != 0) std::perror("losetup -d");
  }
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

TEST_F(OpenDiskTest, ABlockDeviceTellsItsSizeAndIsRefusedWhileInUse) {
  const LoopDevice device(Write(DiskImage().Size(8 << 20)));
  if (device.path().empty()) GTEST_SKIP() << "no loop device here";
  {
    const Opened disk(KABOpenDisk(device.path().c_str(), O_RDONLY, nullptr, 0));
    ASSERT_NE(disk, nullptr) << log_.Text();
    EXPECT_EQ(disk->diskSize, 8U << 20);
  }
  const int claimed = open(device.path().c_str(), O_RDONLY | O_EXCL);
  ASSERT_GE(claimed, 0);
  log_.Clear();
  EXPECT_EQ(KABOpenDisk(device.path().c_str(), O_RDONLY, nullptr, 0), nullptr);
  EXPECT_EQ(log_.Text(), "Error: Failed to open device " + device.path() + ": " + std::strerror(EBUSY) + "\n");
  close(claimed);
}

}  // namespace
