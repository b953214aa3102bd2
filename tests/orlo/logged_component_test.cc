// Components whose map blocks and data lie partly in the write buffer: a real replay, then reads against the picture.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "kab/core.h"
#include "kab/orlo.h"
#include "kab/ssdlog.h"
#include "sample/orlo_group_image.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

constexpr uint64_t kBlock = 4096;

class LoggedComponentTest : public testing::TestWithParam<bool> {
 protected:
  LoggedComponentTest() : image_({.seed = 11, .disks = 2, .logged = GetParam()}) {
    const sample::GroupPaths paths = image_.Group().Write(dir_.Path());
    for (const std::string& path : paths.disks) paths_.push_back(path);
    ssdPath_ = paths.ssd;
    ssd_ = KABOpenSSD(ssdPath_.c_str(), O_RDONLY, 0);
    for (const std::string& path : paths_) disks_.push_back(KABOpenDisk(path.c_str(), O_RDONLY, ssd_, 0));
  }
  ~LoggedComponentTest() override {
    for (KABDiskCtx*& disk : disks_) {
      KABCloseDisk(disk);
      KABFree(&disk);
    }
    KABCloseDisk(ssd_);
    KABFree(&ssd_);
  }

  kab_test::LogCapture log_;
  kab_test::TempDir dir_;
  sample::OrloGroupImage image_;
  std::string ssdPath_;
  std::vector<std::string> paths_;
  KABDiskCtx* ssd_ = nullptr;
  std::vector<KABDiskCtx*> disks_;
};

TEST_P(LoggedComponentTest, ReadsAsThePictureAfterTheReplay) {
  ASSERT_EQ(KABSSDLOGGetValidCheckPointRecord(ssd_), KAB_OK) << log_.Text();
  EXPECT_EQ(OrloOpenComponent(ssd_, sample::UuidText(image_.Components()[0].uuid).c_str()), nullptr);  // no replay yet
  ASSERT_EQ(KABSSDLOGRecovPlogLog(ssd_), KAB_OK) << log_.Text();
  log_.Clear();

  std::mt19937_64 random(5);
  std::vector<uint8_t> buf;
  for (const sample::SampleComponent& c : image_.Components()) {
    OrloComponent* component = OrloOpenComponent(ssd_, sample::UuidText(c.uuid).c_str());
    ASSERT_NE(component, nullptr) << log_.Text();
    EXPECT_EQ(component->disk, disks_[c.disk]);
    const uint64_t blocks = c.picture.size() / kBlock;
    for (int round = 0; round < 200; ++round) {
      const uint64_t first = random() % blocks;
      const uint64_t count = 1 + random() % std::min<uint64_t>(blocks - first, 300);
      buf.assign(count * kBlock, 0xA5);
      ASSERT_EQ(OrloReadComponent(component, buf.data(), first * kBlock, static_cast<uint32_t>(buf.size())), KAB_OK);
      if (c.superBlockPresent) {
        ASSERT_EQ(std::memcmp(buf.data(), c.picture.data() + first * kBlock, buf.size()), 0)
            << c.levels << " levels, " << count << " blocks from " << first;
      } else {
        ASSERT_EQ(buf, std::vector<uint8_t>(buf.size(), 0xA5));  // read as nothing
      }
    }
    OrloCloseComponent(component);
  }
  EXPECT_EQ(log_.Text(), "");
}

INSTANTIATE_TEST_SUITE_P(Log, LoggedComponentTest, testing::Bool(),
                         [](const auto& instance) { return instance.param ? "Logged" : "Empty"; });

}  // namespace
