#pragma once
// A group whose capacity disks carry components, with an empty log or one that holds a part of them.

#include <cstdint>
#include <vector>

#include "sample/group_image.h"

namespace sample {

struct OrloGroupOptions {
  uint64_t seed = 1;
  uint32_t disks = 2;
  uint64_t ssdSize = 16ULL << 20;
  uint64_t diskSize = 16ULL << 20;
  /// Every third map block and run of data lies in the write buffer, and noise in its place on the disk.
  bool logged = false;
  /// Times as many runs in each component.
  uint32_t scale = 1;
};

struct SampleComponent {
  uint32_t disk;
  Uuid uuid;
  uint32_t levels;
  bool superBlockPresent;
  std::vector<uint8_t> picture;  // all of it up to its last run's end, the superblock first
};

/// Disks of even number have format version 7, the others 6; each has map trees of 1, 2 and 3 levels and a component
/// without a superblock.
class OrloGroupImage {
 public:
  /// Throws std::runtime_error when the disks or the SSD are too small.
  explicit OrloGroupImage(const OrloGroupOptions& options);

  GroupImage& Group() { return group_; }
  const std::vector<SampleComponent>& Components() const { return components_; }

 private:
  GroupImage group_;
  std::vector<SampleComponent> components_;
};

}  // namespace sample
