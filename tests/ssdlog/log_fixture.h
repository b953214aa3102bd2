#pragma once
// A group whose SSD carries a log, opened for a test.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "kab/kab.h"
#include "sample/log_image.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace kab_test {

struct CloseDisk {
  void operator()(KABDiskCtx* ctx) const {
    EXPECT_EQ(KABCloseDisk(ctx), 0U);
    KABFree(&ctx);
  }
};
using OpenedDisk = std::unique_ptr<KABDiskCtx, CloseDisk>;

/// Members are released in reverse: the disks before their SSD.
struct OpenedGroup {
  sample::GroupPaths paths;
  OpenedDisk ssd;
  std::vector<OpenedDisk> disks;
};

class LogTest : public testing::Test {
 protected:
  static constexpr uint64_t kStart = 16;
  static constexpr uint64_t kLength = 1024;

  LogTest()
      : group_(2, sample::kDataOffset + (kStart + kLength) * 4096 + sample::kGptSize),
        image_(group_.Ssd(), kStart, kLength) {}

  sample::DiskImage& Ssd() { return group_.Ssd(); }
  const sample::Uuid& DiskUuid(uint32_t disk) { return group_.Disk(disk).uuid(); }

  /// Writes the images; opens the SSD, and the disks when asked to.
  OpenedGroup Open(bool disks = false) { return Open(group_, disks); }
  OpenedGroup Open(sample::GroupImage& group, bool disks) {
    OpenedGroup opened;
    opened.paths = group.Write(dir_.Path());
    opened.ssd.reset(KABOpenSSD(opened.paths.ssd.c_str(), O_RDWR, 0));
    if (disks) OpenDisks(&opened);
    return opened;
  }
  static void OpenDisks(OpenedGroup* opened) {
    for (const std::string& path : opened->paths.disks) {
      opened->disks.emplace_back(KABOpenDisk(path.c_str(), O_RDWR, opened->ssd.get(), 0));
    }
  }
  /// The SSD with its checkpoint record chosen.
  OpenedGroup OpenChosen(bool disks = false) {
    OpenedGroup opened = Open(disks);
    EXPECT_EQ(KABSSDLOGGetValidCheckPointRecord(opened.ssd.get()), 0U) << log_.Text();
    return opened;
  }

  LogCapture log_;
  TempDir dir_;
  sample::GroupImage group_;
  sample::LogImage image_;
  sample::LogChain plog_{1};
  sample::LogChain llog_{2};
};

}  // namespace kab_test
