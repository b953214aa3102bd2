// Reads, looks up, validates and writes on a dedup group of two disks that the input has spoilt: a list of patches of
// metadata blocks, sealed afterwards unless the first byte says otherwise.
//
//    | choice | patch: disk and block 2, offset 2, value 8 | ...

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kab/core.h"
#include "kab/ddp.h"
#include "sample/dedup_image.h"

namespace {

using sample::DedupImage;

constexpr size_t kPatch = 12;

enum Choice : uint8_t {
  kUnsealed = 1,
  kWrite = 2,
  kValidate = 4,  // and correct, before anything else
};

DedupImage MakeImage() {
  DedupImage image({.mode = 2, .disks = 2, .diskSize = 5 << 20, .expansion = 3, .ssdSize = 4 << 20});
  image.StoreMixture(40, 1);
  return image;
}

struct Opened {
  explicit Opened(const sample::DiskImage& image, KABDiskCtx* group) {
    fd = memfd_create("disk", MFD_CLOEXEC);
    if (fd < 0) std::abort();
    image.WriteTo(fd);
    path = "/proc/self/fd/" + std::to_string(fd);
    ctx = group == nullptr ? KABOpenSSD(path.c_str(), O_RDWR, 0) : KABOpenDisk(path.c_str(), O_RDWR, group, 0);
  }
  ~Opened() {
    if (ctx != nullptr && KABCloseDisk(ctx) == KAB_OK) KABFree(&ctx);
    close(fd);
  }
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;
  int fd;
  std::string path;
  KABDiskCtx* ctx;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint32_t ready = KABInit(0, std::fopen("/dev/null", "w"));
  static const DedupImage base = MakeImage();
  if (ready != KAB_OK) std::abort();
  const uint8_t choice = size == 0 ? 0 : *data;
  DedupImage image = base;
  for (size_t at = 1; at + kPatch <= size; at += kPatch) {
    uint16_t where[2];
    uint64_t value;
    std::memcpy(where, data + at, sizeof where);
    std::memcpy(&value, data + at + sizeof where, sizeof value);
    const uint64_t blk = (where[0] >> 1) % (image.Place().dataStart + 6);
    image.Disk(where[0] & 1).Put64(DedupImage::At(blk) + where[1] % 4089, value);
  }
  if ((choice & kUnsealed) == 0) image.Seal();

  const Opened ssd(image.Group().Ssd(), nullptr);
  const Opened first(image.Disk(0), ssd.ctx);
  const Opened second(image.Disk(1), ssd.ctx);
  if (first.ctx == nullptr || second.ctx == nullptr) std::abort();  // patches leave what the open looks at alone
  std::vector<uint8_t> buf(64 * 4096, 0x3C);
  // Any status will do; a trap or a hang will not.
  for (KABDiskCtx* disk : {first.ctx, second.ctx}) {
    uint8_t fixed = 0;
    if ((choice & kValidate) != 0) (void)DDPValidateSuperBlk(disk, &fixed);
    if ((choice & kWrite) != 0) (void)DDPWrite(disk, buf.data(), 10 * 4096, 35 * 4096 + 100);
    for (uint64_t blk = 0; blk < 48; ++blk) (void)DDPRead(disk, buf.data(), 4096, blk * 4096);
    DDPCompareSuperBlks(disk);
  }
  DDPUpdateBlkStatsForDG(ssd.ctx);
  uint32_t dev = 0;
  uint64_t blk = 0;
  uint32_t slot = 0;
  uint32_t value = 0;
  (void)KABDDPPopulateZeroBlkDetails(ssd.ctx, &dev, &blk, &slot, &value);
  (void)DDPReadHashMapBlkByIndex(ssd.ctx, size * 0x9E3779B97F4A7C15, buf.data(), &dev, &blk, &slot, &blk);
  for (uint64_t type = 0; type < 12; ++type) {
    uint8_t inUse = 0;
    (void)DDPIsPBNInUse(first.ctx, type << 40 | size, &inUse);
  }
  return 0;
}
