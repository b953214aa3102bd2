#pragma once
// An open disk group with Orlo data on its capacity disks.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "kab/core.h"
#include "kab/orlo.h"
#include "sample/group_image.h"
#include "sample/orlo_image.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace kab_test {

class OrloGroup {
 public:
  explicit OrloGroup(uint8_t version, uint32_t diskCount = 1, uint64_t diskSize = 64ULL << 20)
      : images(diskCount, 8ULL << 20, diskSize) {
    for (uint32_t i = 0; i < diskCount; ++i) orlo.emplace_back(images.Disk(i), version);
  }
  ~OrloGroup() { Close(); }
  OrloGroup(const OrloGroup&) = delete;
  OrloGroup& operator=(const OrloGroup&) = delete;

  /// Writes the images and opens them, as if an empty PLOG had been replayed.
  void Open() {
    paths_ = images.Write(dir_.Path());
    ssd = KABOpenSSD(paths_.ssd.c_str(), O_RDWR, 0);
    ASSERT_NE(ssd, nullptr) << log.Text();
    for (const std::string& path : paths_.disks) {
      disks.push_back(KABOpenDisk(path.c_str(), O_RDWR, ssd, 0));
      ASSERT_NE(disks.back(), nullptr) << log.Text();
    }
    ssd->plogRecoveryComplete = 1;
    ssd->llogRecoveryComplete = 1;
    log.Clear();
  }
  void Close() {
    for (KABDiskCtx*& disk : disks) {
      KABCloseDisk(disk);
      KABFree(&disk);
    }
    disks.clear();
    if (ssd != nullptr) KABCloseDisk(ssd);
    KABFree(&ssd);
  }
  KABDiskCtx* Disk() { return disks.front(); }
  OrloBTreeCursor Cursor(uint64_t root) { return {root, nullptr, 0, orlo.front().version(), Disk()}; }
  std::vector<uint8_t> DiskBytes(size_t disk) const { return ReadFile(paths_.disks.at(disk)); }

  LogCapture log;
  sample::GroupImage images;
  std::deque<sample::OrloImage> orlo;
  KABDiskCtx* ssd = nullptr;
  std::vector<KABDiskCtx*> disks;

 private:
  TempDir dir_;
  sample::GroupPaths paths_;
};

/// The bytes of a test's own pattern: a buffer that a call has not touched still holds it.
inline std::vector<uint8_t> Untouched(size_t length) { return std::vector<uint8_t>(length, 0xA5); }

}  // namespace kab_test
