#pragma once
// A whole disk group: one cache SSD and up to seven capacity disks, each known to the SSD.

#include <cstdint>
#include <string>
#include <vector>

#include "sample/disk_image.h"

namespace sample {

struct GroupPaths {
  std::string ssd;
  std::vector<std::string> disks;
};

class GroupImage {
 public:
  /// UUID number `100 * group` for the SSD, the next ones for the disks; disk i sits in slot i.
  explicit GroupImage(uint32_t diskCount, uint64_t ssdSize = 8ULL << 20, uint64_t diskSize = 8ULL << 20,
                      uint32_t group = 1);

  DiskImage& Ssd() { return ssd_; }
  DiskImage& Disk(uint32_t index) { return disks_.at(index); }
  uint32_t DiskCount() const { return static_cast<uint32_t>(disks_.size()); }

  /// Writes ssd.img, disk0.img, disk1.img ... into a folder that exists.
  GroupPaths Write(const std::string& folder) const;

 private:
  DiskImage ssd_;
  std::vector<DiskImage> disks_;
};

}  // namespace sample
