#include "sample/orlo_group_image.h"

#include <algorithm>
#include <stdexcept>

#include "sample/log_image.h"
#include "sample/orlo_image.h"

namespace sample {
namespace {

constexpr uint64_t kFirstBlk = 16;
constexpr uint32_t kSectorsPerBlock = 8;
constexpr uint32_t kSuperBlockBlocks = 1024;
constexpr uint32_t kComponentNumbers = 1000;  // UUID numbers, a hundred a disk

/// Moves blocks of a disk into the write buffer.
class WriteBuffer {
 public:
  WriteBuffer(DiskImage& ssd, uint64_t firstBlk, uint64_t endBlk) : ssd_(ssd), nextBlk_(firstBlk), endBlk_(endBlk) {}

  void Take(DiskImage& disk, uint64_t block, uint64_t count) {
    if (count > endBlk_ - nextBlk_) throw std::runtime_error("the SSD is too small for its log");
    const uint64_t at = OrloImage::BlockAt(block);
    ssd_.PutBytes(LogImage::BlkOffset(nextBlk_), disk.GetBytes(at, count * kMapBlock));
    disk.FillNoise(at, count * kMapBlock, lsn_);
    plog.Add(WriteEntry(disk.uuid(), lsn_++, at - kDataOffset, static_cast<uint32_t>(count * kMapBlock),
                        {{nextBlk_ * kSectorsPerBlock, static_cast<uint16_t>(count * kSectorsPerBlock)}}));
    nextBlk_ += count;
  }

  LogChain plog{1};

 private:
  DiskImage& ssd_;
  uint64_t nextBlk_;
  uint64_t endBlk_;
  uint64_t lsn_ = 1;
};

/// Without holes in front: reading a hole of a superblock fails.
std::vector<OrloRun> ComponentRuns(uint32_t count, uint32_t longest, uint64_t seed) {
  std::vector<OrloRun> runs = OrloImage::MakeRuns(count, longest, seed);
  std::erase_if(runs, [](const OrloRun& run) { return run.hole && run.logical < kSuperBlockBlocks; });
  return runs;
}

void AddVdisks(OrloImage& orlo, uint32_t disk, uint64_t seed, uint32_t scale) {
  const auto uuid = [disk](uint32_t number) { return MakeUuid(kComponentNumbers + 100 * disk + number); };
  orlo.AddVdisk(uuid(0), ComponentRuns(20 * scale, 5, seed));
  orlo.AddVdisk(uuid(1), ComponentRuns(300 * scale, 6, seed + 1), {40, 20});
  orlo.AddVdisk(uuid(2), ComponentRuns(200 * scale, 6, seed + 2), {8, 6, true});
  orlo.AddVdisk(uuid(3), ComponentRuns(10 * scale, 3, seed + 3), {}, false);
}

// The superblock's run stays in place: the first one.
void MoveThirds(const OrloVdisk& vdisk, DiskImage& disk, WriteBuffer* buffer) {
  for (size_t i = vdisk.mapBlocks.size(); i-- > 0;) {
    if ((vdisk.mapBlocks.size() - 1 - i) % 3 == 0) buffer->Take(disk, vdisk.mapBlocks[i], 1);  // the root always
  }
  for (size_t i = 2; i < vdisk.runs.size(); i += 3) {
    if (!vdisk.runs[i].hole) buffer->Take(disk, vdisk.runs[i].physical, vdisk.runs[i].count);
  }
}

}  // namespace

OrloGroupImage::OrloGroupImage(const OrloGroupOptions& options)
    : group_(options.disks, options.ssdSize, options.diskSize) {
  const uint64_t logBytes = options.ssdSize - std::min(options.ssdSize, kDataOffset + kGptSize);
  const uint64_t blks = logBytes / kLogBlock;
  if (blks < 4 * kFirstBlk) throw std::runtime_error("the SSD is too small for its log");
  const uint64_t lengthBlks = blks - kFirstBlk;
  // The chain takes the write buffer's first quarter, data the rest.
  WriteBuffer buffer(group_.Ssd(), kFirstBlk + lengthBlks / 4, kFirstBlk + lengthBlks);
  for (uint32_t i = 0; i < options.disks; i++) {
    OrloImage orlo(group_.Disk(i), i % 2 == 0 ? 7 : 6);
    AddVdisks(orlo, i, options.seed * 100 + 10 * uint64_t{i}, options.scale);
    for (size_t number = 0; number < orlo.vdisks().size(); number++) {
      const OrloVdisk& vdisk = orlo.vdisks()[number];
      const OrloRun& last = vdisk.runs.back();
      const uint64_t end = (uint64_t{last.logical} + last.count) * kMapBlock;
      components_.push_back({i, vdisk.uuid, vdisk.levels, vdisk.superBlockPresent, orlo.Picture(number, 0, end)});
    }
    if (!options.logged) continue;
    for (const OrloVdisk& vdisk : orlo.vdisks()) MoveThirds(vdisk, group_.Disk(i), &buffer);
  }
  if (buffer.plog.BlockCount() + 1 >= lengthBlks / 4) throw std::runtime_error("the SSD is too small for its log");
  LogImage(group_.Ssd(), kFirstBlk, lengthBlks).Write(buffer.plog);
}

}  // namespace sample
