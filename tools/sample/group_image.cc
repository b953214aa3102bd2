#include "sample/group_image.h"

#include <stdexcept>

namespace sample {

GroupImage::GroupImage(uint32_t diskCount, uint64_t ssdSize, uint64_t diskSize, uint32_t group) : disks_(diskCount) {
  if (diskCount > kGroupSlots) throw std::out_of_range("a group has at most 7 capacity disks");
  ssd_.Size(ssdSize).SetUuid(MakeUuid(100 * group));
  for (uint32_t i = 0; i < diskCount; i++) {
    disks_[i].Size(diskSize).SetUuid(MakeUuid(100 * group + 1 + i));
    ssd_.GroupUuid(i, disks_[i].uuid());
  }
}

GroupPaths GroupImage::Write(const std::string& folder) const {
  GroupPaths paths;
  paths.ssd = ssd_.Write(folder + "/ssd.img");
  for (size_t i = 0; i < disks_.size(); i++) {
    paths.disks.push_back(disks_[i].Write(folder + "/disk" + std::to_string(i) + ".img"));
  }
  return paths;
}

}  // namespace sample
