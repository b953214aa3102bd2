#pragma once
// Disks of fuzz targets: images in memory, opened by their descriptors' names.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kab/core.h"
#include "sample/disk_image.h"

namespace kab_fuzz {

class OpenDisk {
 public:
  OpenDisk(const sample::DiskImage& image, KABDiskCtx* group) : fd_(memfd_create("disk", MFD_CLOEXEC)) {
    if (fd_ < 0) std::abort();
    image.WriteTo(fd_);
    path_ = "/proc/self/fd/" + std::to_string(fd_);
    ctx_ = group == nullptr ? KABOpenSSD(path_.c_str(), O_RDWR, 0) : KABOpenDisk(path_.c_str(), O_RDWR, group, 0);
    if (ctx_ == nullptr) std::abort();  // patches leave what the open looks at alone
  }
  ~OpenDisk() {
    if (KABCloseDisk(ctx_) == KAB_OK) KABFree(&ctx_);
    close(fd_);
  }
  OpenDisk(const OpenDisk&) = delete;
  OpenDisk& operator=(const OpenDisk&) = delete;

  KABDiskCtx* ctx() { return ctx_; }

 private:
  int fd_;
  std::string path_;
  KABDiskCtx* ctx_ = nullptr;
};

/// One 12-byte change that an input asks for: where, and eight bytes to put there.
struct Patch {
  uint16_t block;
  uint16_t offset;
  uint64_t value;
};
constexpr size_t kPatchSize = 12;

inline Patch PatchAt(const uint8_t* data) {
  Patch patch;
  std::memcpy(&patch.block, data, 2);
  std::memcpy(&patch.offset, data + 2, 2);
  std::memcpy(&patch.value, data + 4, 8);
  return patch;
}

}  // namespace kab_fuzz
