// Looks up, walks and reads the components of an Orlo disk that the input has spoilt: a list of patches of block 0, the
// registry and map blocks, none of which carries a checksum that is looked at.
//
//    | choice | patch: block 2, offset 2, value 8 | ...

#include <cstdio>
#include <vector>

#include "kab/orlo.h"
#include "kab/zolt.h"
#include "open_disk.h"
#include "sample/group_image.h"
#include "sample/orlo_image.h"

namespace {

constexpr uint8_t kVersion6 = 1;
constexpr uint64_t kNoPhysical = ~uint64_t{0};

struct Base {
  explicit Base(uint8_t version) : group(1, 8 << 20, 8 << 20), orlo(group.Disk(0), version) {
    orlo.AddVdisk(sample::MakeUuid(40), sample::OrloImage::MakeRuns(30, 4, 1), {4, 3});
    orlo.AddVdisk(sample::MakeUuid(41), sample::OrloImage::MakeRuns(5, 3, 2));
  }
  sample::GroupImage group;
  sample::OrloImage orlo;
};

void ReadComponents(KABDiskCtx* ssd, const Base& base, std::vector<uint8_t>& buf) {
  for (const sample::OrloVdisk& vdisk : base.orlo.vdisks()) {
    const std::string uuid = sample::UuidText(vdisk.uuid);
    if (OrloComponent* component = OrloOpenComponent(ssd, uuid.c_str())) {
      (void)OrloReadComponent(component, buf.data(), 4 << 20, 1 << 20);
      (void)OrloReadComponentLbaBitMap(component);
      OrloCloseComponent(component);
    }
    (void)OrloReadWriteComponentSuperBlockUUID(ssd->disks[0], ssd->disks[0]->orloBlk0, uuid.c_str(), buf.data(), 1);
    (void)KABIsZOLTCompSblkValid(buf.data());
  }
}

void Walk(KABDiskCtx* disk, uint64_t root, uint8_t version) {
  OrloBTreeCursor cursor{root, nullptr, 0, version, disk};
  for (int steps = 0; steps < 200 && OrloBTree_StepNext(&cursor) == KAB_OK && cursor.top != nullptr; ++steps) {
  }
  for (int steps = 0; steps < 200 && OrloBTree_StepPrev(&cursor) == KAB_OK && cursor.top != nullptr; ++steps) {
  }
  OrloBTree_Clear(&cursor);
  for (const uint64_t block : {uint64_t{0}, uint64_t{1024}, uint64_t{1100}, kNoPhysical}) {
    (void)OrloMapLookupTraverse(&cursor, block);
  }
  OrloBTree_Clear(&cursor);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint32_t ready = KABInit(0, std::fopen("/dev/null", "w"));
  static Base versions[2] = {Base(7), Base(6)};
  if (ready != KAB_OK) std::abort();
  const uint8_t choice = size == 0 ? 0 : *data;
  Base& base = versions[choice & kVersion6];
  sample::DiskImage image = base.group.Disk(0);
  std::vector<uint64_t> places = {sample::kDataOffset, sample::OrloImage::RegistryAt()};
  for (const sample::OrloVdisk& vdisk : base.orlo.vdisks()) {
    for (const uint64_t block : vdisk.mapBlocks) places.push_back(sample::OrloImage::BlockAt(block));
  }
  for (size_t at = 1; at + kab_fuzz::kPatchSize <= size; at += kab_fuzz::kPatchSize) {
    const kab_fuzz::Patch patch = kab_fuzz::PatchAt(data + at);
    image.Put64(places[patch.block % places.size()] + patch.offset % 4089, patch.value);
  }

  kab_fuzz::OpenDisk ssd(base.group.Ssd(), nullptr);
  kab_fuzz::OpenDisk disk(image, ssd.ctx());
  ssd.ctx()->plogRecoveryComplete = 1;  // as after the replay of an empty log
  std::vector<uint8_t> buf(ORLO_SUPERBLOCK_SIZE);
  // Any status will do; a trap or a hang will not.
  ReadComponents(ssd.ctx(), base, buf);
  for (const sample::OrloVdisk& vdisk : base.orlo.vdisks()) Walk(disk.ctx(), vdisk.root, base.orlo.version());
  return 0;
}
