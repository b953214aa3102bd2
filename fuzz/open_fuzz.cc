// Opens, reads and closes disks whose metadata the input has spoilt: a list of patches of the Arvo metadata, the
// encryption metadata behind it and the dedup superblock, which is sealed again unless the first byte says otherwise.
//
//    | choice | patch: place 2, offset 2, value 8 | ...

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "demand.h"
#include "kab/core.h"
#include "kab/crypto.h"
#include "kab/ddp.h"
#include "open_disk.h"
#include "sample/dedup_image.h"
#include "sample/group_image.h"

namespace {

enum Choice : uint8_t {
  kDedup = 1,
  kSecondLayout = 2,
  kUnsealed = 4,
  kCut = 8,       // the first patch's value is the disk's size
  kMounted = 16,  // opened though it may be mounted
  kAlone = 32     // without its group
};

// Spoilt places: blocks from 1 MiB on for the first two, then the superblock and its copy.
constexpr uint64_t kMetaBlocks = 2;

sample::DedupImage MakeDedup() {
  sample::DedupImage image({.mode = 2, .disks = 1, .diskSize = 5 << 20, .expansion = 3, .ssdSize = 4 << 20});
  image.StoreMixture(12, 1);
  return image;
}

sample::GroupImage MakePlain(bool secondLayout) {
  sample::GroupImage group(1, 4 << 20, 4 << 20);
  if (secondLayout) group.Disk(0).Type(11).AltUuid(sample::MakeUuid(9));
  return group;
}

class Disk {
 public:
  explicit Disk(const sample::DiskImage& image) : fd_(memfd_create("disk", MFD_CLOEXEC)) {
    KAB_DEMAND(fd_ >= 0);
    image.WriteTo(fd_);
    path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  ~Disk() {
    if (ctx != nullptr && KABCloseDisk(ctx) == KAB_OK) KABFree(&ctx);
    close(fd_);
  }
  Disk(const Disk&) = delete;
  Disk& operator=(const Disk&) = delete;

  const char* path() const { return path_.c_str(); }
  KABDiskCtx* ctx = nullptr;

 private:
  int fd_;
  std::string path_;
};

void Use(KABDiskCtx* ctx) {
  std::vector<uint8_t> block(4096);
  uint64_t at = 0;
  KAB_DEMAND(ctx->usableSize <= ctx->size);
  (void)KABReadArvoMeta(ctx, block.data(), &at);
  (void)KABReadEncrMeta(ctx, block.data());
  (void)KABReadAWSEncrMeta(ctx, block.data());
  for (uint64_t half = 0; half < 4; ++half) {
    const int32_t index = KABGetDevIdx(ctx->meta, half, ~half);
    KAB_DEMAND(index < KAB_DISKS_PER_GROUP);
  }
  for (const uint64_t offset : {uint64_t{0}, ctx->usableSize - 1, ctx->size, ~uint64_t{0} >> 1U}) {
    (void)KABRead(ctx, block.data(), 4096, static_cast<int64_t>(offset));
  }
  (void)DDPReadSuperBlk(ctx, block.data(), &at);
  (void)DDPReadSecSuperBlk(ctx, block.data(), &at);
  uint8_t fixed = 0;
  (void)DDPValidateSuperBlk(ctx, &fixed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint32_t ready = KABInit(0, std::fopen("/dev/null", "w"));
  static const sample::DedupImage dedup = MakeDedup();
  static const sample::GroupImage plain[2] = {MakePlain(false), MakePlain(true)};
  KAB_DEMAND(ready == KAB_OK);
  const uint8_t choice = size == 0 ? 0 : *data;
  sample::DedupImage image = dedup;
  if ((choice & kDedup) == 0) image.Group() = plain[(choice & kSecondLayout) != 0 ? 1 : 0];
  sample::GroupImage& group = image.Group();

  const uint64_t superBlks[2] = {0, image.Place().secondary};
  uint64_t cut = 0;
  for (size_t at = 1; at + kab_fuzz::kPatchSize <= size; at += kab_fuzz::kPatchSize) {
    const kab_fuzz::Patch patch = kab_fuzz::PatchAt(data + at);
    if ((choice & kCut) != 0 && at == 1) {
      cut = patch.value % group.Disk(0).size();
      continue;
    }
    const uint64_t place = (patch.block >> 1U) % (kMetaBlocks + 2);
    const uint64_t start = place < kMetaBlocks ? sample::kMetaOffset + place * 512
                                               : sample::DedupImage::At(superBlks[place - kMetaBlocks]);
    (patch.block % 2 == 0 ? group.Disk(0) : group.Ssd()).Put64(start + patch.offset % 4089, patch.value);
  }
  if ((choice & (kDedup | kUnsealed)) == kDedup) image.Seal();
  if (cut != 0) group.Disk(0).Size(cut);

  // Any status will do; a trap or a hang will not.
  const uint8_t mounted = (choice & kMounted) != 0 ? 1 : 0;
  Disk ssd(group.Ssd());
  Disk disk(group.Disk(0));
  Disk again(group.Disk(0));
  ssd.ctx = KABOpenSSD(ssd.path(), O_RDONLY, mounted);
  if (ssd.ctx != nullptr) Use(ssd.ctx);
  KABDiskCtx* of = (choice & kAlone) != 0 ? nullptr : ssd.ctx;
  disk.ctx = KABOpenDisk(disk.path(), O_RDONLY, of, mounted);
  if (disk.ctx != nullptr) Use(disk.ctx);
  again.ctx = KABOpenDisk(again.path(), O_RDONLY, of, mounted);  // its slot is taken already
  if (again.ctx != nullptr) Use(again.ctx);
  if (again.ctx != nullptr && KABCloseDisk(again.ctx) == KAB_OK) KABFree(&again.ctx);
  if (disk.ctx != nullptr && KABCloseDisk(disk.ctx) == KAB_OK) KABFree(&disk.ctx);
  return 0;
}
