#pragma once
// A sample dedup group on files of the test's own, opened.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kab/core.h"
#include "kab/ddp.h"
#include "sample/checksum.h"
#include "sample/dedup_image.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace kab_test {

using sample::DedupImage;
using Shape = DedupImage::Shape;

class DedupTest : public testing::Test {
 protected:
  ~DedupTest() override { Close(); }

  /// Writes the image, sealed unless told otherwise, and opens all of it.
  void Open(DedupImage& image, bool seal = true) {
    if (seal) image.Seal();
    paths_ = image.Write(dir_.Path());
    OpenDisks();
  }
  void OpenDisks() {
    Close();
    log_.Clear();
    ssd_ = KABOpenSSD(paths_.ssd.c_str(), O_RDWR, 0);
    ASSERT_NE(ssd_, nullptr) << log_.Text();
    for (const std::string& path : paths_.disks) {
      disks_.push_back(KABOpenDisk(path.c_str(), O_RDWR, ssd_, 0));
      ASSERT_NE(disks_.back(), nullptr) << log_.Text();
      DoNotWaitForTheMedium(path, disks_.back()->fd);
    }
    ASSERT_EQ(log_.Text(), "");
  }
  /// Disks are opened for synchronous writes, of which a test makes thousands. It asks for their order, not for the
  /// medium.
  static void DoNotWaitForTheMedium(const std::string& path, int fd) {
    const int fast = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(dup2(fast, fd), fd);
    close(fast);
  }
  void CloseDisk(size_t disk) {
    if (disks_[disk] == nullptr) return;
    EXPECT_EQ(KABCloseDisk(disks_[disk]), KAB_OK);
    KABFree(&disks_[disk]);
  }
  void Close() {
    for (size_t disk = 0; disk < disks_.size(); ++disk) CloseDisk(disk);
    disks_.clear();
    if (ssd_ != nullptr) {
      EXPECT_EQ(KABCloseDisk(ssd_), KAB_OK);
      KABFree(&ssd_);
    }
  }

  static uint64_t Get(const uint8_t* at, uint32_t width) {
    uint64_t value = 0;
    for (uint32_t i = 0; i < width; ++i) value |= uint64_t{at[i]} << (8 * i);
    return value;
  }
  static void Put(uint8_t* at, uint32_t width, uint64_t value) {
    for (uint32_t i = 0; i < width; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
  }
  /// Writes a block's checksum, by a CRC that is not the library's.
  static void SealBlk(uint8_t* block) {
    Put(block + 16, 4, 0);
    Put(block + 16, 4, sample::Crc32c({block, 4096}));
  }

  LogCapture log_;
  TempDir dir_;
  sample::GroupPaths paths_;
  KABDiskCtx* ssd_ = nullptr;
  std::vector<KABDiskCtx*> disks_;
};

}  // namespace kab_test
