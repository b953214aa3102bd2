// Orlo data as the disk group sees it, block 0 and the addresses of the log areas.

#include <limits>

#include "core/frame/log.h"
#include "kab/core.h"
#include "kab/orlo.h"
#include "kab/ssdlog.h"
#include "orlo/block0_format.h"

namespace kab::orlo {
namespace {

constexpr char kMagic[] = "OLRO";
constexpr uint32_t kOldestVersion = 6;
constexpr uint32_t kNewestVersion = 7;

constexpr uint64_t kLsarMask = 0xffffffffffff;
constexpr uint64_t kGroupSectors = 8192;              // a map page in every group of so many sectors
constexpr uint64_t kMapPageAt = 8200;                 // in the group that starts at sector 8192
constexpr uint64_t kOffsetMask = 0x01fffffffffffe00;  // bits 9 to 56
constexpr uint32_t kSectorSize = 512;

// Offsets come from the disk, and the way down adds the data area's start to them.
bool Addressable(const KABDiskCtx* disk, uint32_t length, uint64_t offset) {
  constexpr uint64_t kEnd = std::numeric_limits<int64_t>::max();
  return disk->dataOffset <= kEnd - length && offset <= kEnd - length - disk->dataOffset;
}

}  // namespace
}  // namespace kab::orlo

using kab::Log;

uint32_t OrloReadData(KABDiskCtx* disk, void* buf, uint32_t length, uint64_t offset) {
  if (kab::orlo::Addressable(disk, length, offset) && KABPlogRead(disk, buf, length, offset) == KAB_OK) return KAB_OK;
  Log("%s: Error: Read Failed at offset %lu, length %u\n", disk->uuidText, offset, length);
  return KAB_IO_ERROR;
}

uint32_t OrloWriteData(KABDiskCtx* disk, const void* buf, uint32_t length, uint64_t offset) {
  if (kab::orlo::Addressable(disk, length, offset) && KABPlogWrite(disk, buf, length, offset) == KAB_OK) return KAB_OK;
  Log("%s: Error: Write Failed at offset %lu\n", disk->uuidText, offset);
  return KAB_IO_ERROR;
}

uint32_t OrloReadBlock0(KABDiskCtx* disk, void* buf, uint64_t* out) {
  if (out != nullptr) *out = 0;
  return OrloReadData(disk, buf, ORLO_BLOCK0_SIZE, 0);
}

uint32_t OrloCheckBlock0(KABDiskCtx* disk, const void* blk0) {
  const auto* block = static_cast<const kab::orlo::Block0*>(blk0);
  if (std::memcmp(block->magic, kab::orlo::kMagic, sizeof block->magic) != 0) {
    // The text ends at the first zero byte, at the latest with the block.
    Log("%s: MetaError: Orlo blk0: Expected magic number %s,actual magic number %.*s\n", disk->uuidText,
        kab::orlo::kMagic, ORLO_BLOCK0_SIZE, static_cast<const char*>(blk0));
    return KAB_MAGIC_MISMATCH;
  }
  const uint32_t version = block->version;
  if (version < kab::orlo::kOldestVersion || version > kab::orlo::kNewestVersion) {
    Log("%s: MetaError: Orlo blk0: Expected version %u or %u, actual version %d\n", disk->uuidText,
        kab::orlo::kOldestVersion, kab::orlo::kNewestVersion, static_cast<int32_t>(version));
    return KAB_VERSION_MISMATCH;
  }
  return KAB_OK;
}

uint32_t OrloInitDiskCTX(KABDiskCtx* disk) {
  const uint32_t st = OrloReadBlock0(disk, disk->orloBlk0, nullptr);
  if (st != KAB_OK) Log("%s: Error: Failed to read blk0: %s\n", disk->uuidText, KABErrorStr(st));
  return st;
}

uint32_t OrloReadSpmtVauLsar(KABDiskCtx* disk, void* buf, uint64_t lsar) {
  if (buf == nullptr) return KAB_OUT_OF_MEMORY;
  return OrloReadData(disk, buf, ORLO_MAP_BLOCK_SIZE, (lsar & kab::orlo::kLsarMask) * kab::orlo::kSectorSize);
}

uint32_t OrloReadSpmtMtpgLsar(KABDiskCtx* disk, void* buf, uint64_t lsar) {
  const uint64_t group = (lsar - kab::orlo::kGroupSectors) & ~(kab::orlo::kGroupSectors - 1);
  return OrloReadSpmtVauLsar(disk, buf, group + kab::orlo::kMapPageAt);
}

uint32_t OrloReadSpmtVauLsarId(KABDiskCtx* disk, void* buf, uint64_t vauId, uint64_t* outOffset) {
  const uint64_t lsar = ((vauId - 1) << 22U) | kab::orlo::kGroupSectors;
  if (outOffset != nullptr) *outOffset = lsar * kab::orlo::kSectorSize & kab::orlo::kOffsetMask;
  return OrloReadSpmtVauLsar(disk, buf, lsar);
}
