// Chooses, walks and replays an SSD log that the input has spoilt: a list of patches of checkpoint records and log
// blocks, with links and checksums made right again afterwards unless the first byte says otherwise.
//
//    | choice | patch: block 2, offset 2, value 8 | ...

#include <cstdio>
#include <vector>

#include "kab/ssdlog.h"
#include "open_disk.h"
#include "sample/log_image.h"

namespace {

enum Choice : uint8_t { kUnsealed = 1, kWrite = 2 };

constexpr uint64_t kPrevChecksumAt = 32;
constexpr uint64_t kChecksumAt = 56;

sample::LoggedGroup MakeGroup() {
  return sample::LoggedGroup(
      {.seed = 3, .disks = 2, .entries = 150, .diskBytes = 1 << 20, .writeBufferBlks = 1024, .stride = 1});
}

void Seal(sample::DiskImage& ssd, const std::vector<uint64_t>& blks) {
  for (uint64_t copy = 0; copy < 2; ++copy) sample::LogImage::SealRecord(ssd, copy);
  uint64_t previous = 0;
  for (const uint64_t blk : blks) {
    const uint64_t at = sample::LogImage::BlkOffset(blk);
    if (previous != 0) ssd.Put64(at + kPrevChecksumAt, previous);
    sample::LogImage::SealBlock(ssd, blk);
    previous = ssd.Get64(at + kChecksumAt);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint32_t ready = KABInit(0, std::fopen("/dev/null", "w"));
  static sample::LoggedGroup base = MakeGroup();
  if (ready != KAB_OK) std::abort();
  const std::vector<uint64_t>& blks = base.Log().PlogBlks();
  const uint8_t choice = size == 0 ? 0 : *data;
  sample::DiskImage image = base.Group().Ssd();
  for (size_t at = 1; at + kab_fuzz::kPatchSize <= size; at += kab_fuzz::kPatchSize) {
    const kab_fuzz::Patch patch = kab_fuzz::PatchAt(data + at);
    const size_t which = patch.block % (blks.size() + 2);
    const uint64_t blk = which < 2 ? which : blks[which - 2];
    image.Put64(sample::LogImage::BlkOffset(blk) + patch.offset % 4089, patch.value);
  }
  if ((choice & kUnsealed) == 0) Seal(image, blks);

  kab_fuzz::OpenDisk ssd(image, nullptr);
  kab_fuzz::OpenDisk disk(base.Group().Disk(0), ssd.ctx());  // the other one stays a placeholder
  std::vector<uint8_t> block(4096);
  std::vector<uint8_t> other(4096);
  // Any status will do; a trap or a hang will not.
  if (KABSSDLOGGetValidCheckPointRecord(ssd.ctx()) == KAB_OK) {
    (void)KABSSDLOGCheckCPR(ssd.ctx(), ssd.ctx()->logState->checkpoint);
    for (const uint32_t type : {1U, 2U}) {
      uint64_t offset = 0;
      uint32_t status = KABSSDLOGReadPrev(ssd.ctx(), type, nullptr, block.data(), &offset);
      for (int steps = 0; status == KAB_OK && steps < 64; ++steps) {
        (void)KABSSDLOGCheckLogBlkHdr(ssd.ctx(), block.data(), 0, type);
        status = KABSSDLOGReadPrev(ssd.ctx(), type, block.data(), other.data(), &offset);
        block.swap(other);
      }
    }
  }
  (void)KABSSDLOGRecovPlogLog(ssd.ctx());
  (void)KABSSDLOGRecovLlogLog(ssd.ctx());
  std::vector<uint8_t> buf(1 << 20);
  (void)KABPlogRead(disk.ctx(), buf.data(), static_cast<uint32_t>(buf.size()), 0);
  (void)KABPlogRead(disk.ctx(), buf.data(), 5000, UINT64_MAX - 100);
  if ((choice & kWrite) != 0) (void)KABPlogWrite(disk.ctx(), buf.data(), 200000, 300000);
  return 0;
}
