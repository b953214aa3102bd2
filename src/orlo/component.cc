// Components: vdisks found by UUID on a group's disks, read through their maps.

#include <algorithm>
#include <cstring>

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "kab/core.h"
#include "kab/orlo.h"
#include "orlo/map_block.h"
#include "plinth/bit_vector.h"

namespace kab::orlo {
namespace {

constexpr uint64_t kSectorSize = 512;
constexpr uint64_t kLsarMask = 0xffffffffffff;

struct CloseComponent {
  void operator()(OrloComponent* component) const noexcept { OrloCloseComponent(component); }
};
using OpenedComponent = std::unique_ptr<OrloComponent, CloseComponent>;

Vdisk VdiskOf(const OrloComponent* handle) { return DecodeVdisk(handle->vdiskEntry, FormatVersion(handle->disk)); }

/// A read buffer that fills from front to back; what no run covers reads as zeros.
class ReadBuffer {
 public:
  ReadBuffer(KABDiskCtx* disk, uint8_t* buf, uint32_t length) : disk_(disk), buf_(buf), length_(length) {}

  /// Brings in a run of which the first `skip` bytes lie before the buffer, the others at `at`.
  uint32_t Fill(const OrloExtent& extent, uint64_t at, uint64_t skip) {
    const uint64_t bytes = extent.sectorCount * kSectorSize;
    if (at >= length_ || skip >= bytes) return KAB_OK;
    const auto piece = static_cast<uint32_t>(std::min(bytes - skip, length_ - at));
    ZeroUpTo(at);
    uint32_t st = KAB_OK;
    if (extent.physicalSectors == kNoBlock) {
      std::memset(buf_ + at, 0, piece);
    } else {
      st = OrloReadData(disk_, buf_ + at, piece, (extent.physicalSectors & kLsarMask) * kSectorSize + skip);
    }
    if (st == KAB_OK) done_ = std::max(done_, at + piece);
    return st;
  }

  void ZeroUpTo(uint64_t end) {
    if (end > done_) std::memset(buf_ + done_, 0, end - done_);
    done_ = std::max(done_, end);
  }

 private:
  KABDiskCtx* disk_;
  uint8_t* buf_;
  uint64_t length_;
  uint64_t done_ = 0;
};

}  // namespace
}  // namespace kab::orlo

using kab::Log;

OrloComponent* OrloOpenComponent(KABDiskCtx* group, const char* uuidText) {
  kab::orlo::OpenedComponent found;
  for (KABDiskCtx* disk : group->disks) {
    if (disk == nullptr || disk->placeholder != 0) continue;
    uint32_t st = OrloReadBlock0(disk, disk->orloBlk0, nullptr);
    if (st != KAB_OK) {
      Log("Error: %s: Orlo block0 read failed: %s\n", disk->uuidText, KABErrorStr(st));
      return nullptr;
    }
    uint8_t entry[ORLO_VDISK_ENTRY_SIZE] = {};
    st = kab::orlo::FormatVersion(disk) == 6 ? OrloReadVdisk(disk, disk->orloBlk0, uuidText, entry)
                                             : OrloReadVdiskV4Plus(disk, disk->orloBlk0, uuidText, entry);
    if (st != KAB_OK) continue;  // not on this disk: another one may list it
    auto component = kab::AllocRecord<OrloComponent>();
    if (!component) {
      Log("Error: %s: Failed to allocated memory for component\n", disk->uuidText);
      return nullptr;
    }
    std::memcpy(component->uuidText, uuidText, strnlen(uuidText, KAB_UUID_TEXT_SIZE - 1));
    component->disk = disk;
    std::memcpy(component->vdiskEntry, entry, sizeof entry);
    found.reset(component.release());  // the last disk that lists it counts
  }
  return found.release();
}

uint32_t OrloReadComponent(OrloComponent* handle, void* buf, uint64_t offset, uint32_t length) {
  const kab::orlo::Vdisk vdisk = kab::orlo::VdiskOf(handle);
  if (!vdisk.superBlockPresent) return KAB_OK;
  const uint32_t st = OrloReadComponentPba(handle->disk, vdisk.mapBlock, buf, offset, length);
  if (st != KAB_OK) {
    Log("%s: Error: Orlo Component read failed for vdiskID %d\n", handle->disk->uuidText,
        static_cast<int32_t>(vdisk.id));
  }
  return st;
}

uint32_t OrloReadComponentPba(KABDiskCtx* disk, uint64_t rootBlock, void* buf, uint64_t offset, uint32_t length) {
  OrloBTreeCursor cursor = {rootBlock, nullptr, 0, kab::orlo::FormatVersion(disk), disk};
  const uint64_t end = length > UINT64_MAX - offset ? UINT64_MAX : offset + length;
  OrloExtent* extents = nullptr;
  uint32_t st = OrloMapLookup(&cursor, offset / ORLO_MAP_BLOCK_SIZE, end / ORLO_MAP_BLOCK_SIZE,
                              length / ORLO_MAP_BLOCK_SIZE, &extents, 1);
  if (st != KAB_OK) return st;

  kab::orlo::ReadBuffer out(disk, static_cast<uint8_t*>(buf), length);
  while (extents != nullptr) {
    if (st == KAB_OK) {
      // The first run may begin before an offset that is no multiple of the block size.
      const uint64_t start = extents->logicalSectors * kab::orlo::kSectorSize;
      st = start >= offset ? out.Fill(*extents, start - offset, 0) : out.Fill(*extents, 0, offset - start);
    }
    OrloExtent* next = extents->next;
    KABFree(&extents);
    extents = next;
  }
  out.ZeroUpTo(length);
  return st;
}

uint32_t* OrloReadComponentLbaBitMap(OrloComponent* handle) {
  const kab::orlo::Vdisk vdisk = kab::orlo::VdiskOf(handle);
  if (!vdisk.superBlockPresent) return nullptr;
  if (handle->lbaMap != nullptr) kab::plinth::BitVectorFree(handle->lbaMap);
  handle->lbaMap = kab::plinth::BitVectorAlloc(ORLO_LBA_MAP_BITS);
  if (handle->lbaMap == nullptr) {
    Log("%s: Error: lbaMap alloction failed\n", handle->disk->uuidText);
    return nullptr;
  }
  uint32_t* bits = kab::plinth::BitVectorWords(handle->lbaMap);
  if (OrloReadComponentBtree(handle->disk, vdisk.mapBlock, bits) != KAB_OK) {
    Log("%s: Error: Orlo Component Btree read failed for vdiskID %d\n", handle->disk->uuidText,
        static_cast<int32_t>(vdisk.id));
    kab::plinth::BitVectorFree(handle->lbaMap);
    handle->lbaMap = nullptr;
    return nullptr;
  }
  return bits;
}

uint32_t OrloCloseComponent(OrloComponent* handle) {
  if (handle == nullptr) return KAB_OK;
  if (handle->lbaMap != nullptr) kab::plinth::BitVectorFree(handle->lbaMap);
  KABFree(&handle);
  return KAB_OK;
}
