// Choosing free units, and giving back those that nothing refers to.

#include "ddp/allocation.h"

#include <algorithm>
#include <cstring>

#include "core/frame/log.h"
#include "ddp/regions.h"
#include "kab/core.h"
#include "kab/ddp.h"

namespace kab::ddp {
namespace {

constexpr uint64_t kFirstRegionBlk = 16;  // behind superblock, transaction superblock and reserve

struct Region {
  uint64_t start;
  uint64_t size;
};

bool Within(const Region& region, uint64_t end) {
  return region.start >= kFirstRegionBlk && region.start <= end && region.size <= end - region.start;
}

// Both lie within a disk, hence their ends do not wrap.
bool Apart(const Region& a, const Region& b) { return a.start + a.size <= b.start || b.start + b.size <= a.start; }

bool IsSet(const BitmapBlk& blk, uint32_t bit) { return (blk.bits[bit / 8] >> (bit % 8) & 1) != 0; }

void Toggle(BitmapBlk* blk, uint32_t bit) { blk->bits[bit / 8] ^= static_cast<uint8_t>(1U << (bit % 8)); }

// The first clear bit at or after `bit`; kBitsPerBlk when there is none.
uint32_t FindClear(const BitmapBlk& blk, uint32_t bit) {
  while (bit < kBitsPerBlk) {
    if (bit % 8 == 0 && blk.bits[bit / 8] == 0xFF) {
      bit += 8;
    } else if (IsSet(blk, bit)) {
      ++bit;
    } else {
      break;
    }
  }
  return bit;
}

}  // namespace

bool IsWritableLayout(const KABDiskCtx& disk) {
  const SuperBlk& sb = *SuperBlkOf(&disk);
  const uint64_t blks = CapacityBlks(disk);
  const Region bmap{sb.bmapStart, sb.bmapSize};
  const Region xmap{sb.xmapStart, sb.xmapSize};
  const Region hmap{sb.hmapStart, sb.hmapSize};
  const uint64_t dataStart = sb.dataStart;
  bool sound = sb.hdr.magic == kMagic && sb.hdr.blkType == DDP_BLK_SUPER && sb.hdr.checksum == BlkChecksum(&sb) &&
               dataStart <= blks && sb.expansion1Size <= blks - dataStart && Within(hmap, dataStart);
  if (sound && HasMdr(sb)) {
    // The second copy of everything before the hash map lies behind it.
    sound = Within(bmap, hmap.start) && Within(xmap, hmap.start) && hmap.start <= dataStart - (hmap.start + hmap.size);
  } else if (sound) {
    sound = Within(bmap, dataStart) && Within(xmap, dataStart) && Apart(bmap, hmap) && Apart(xmap, hmap);
  }
  sound = sound && Apart(bmap, xmap);
  if (!sound) Log("%s: MetaError: The dedup regions are not laid out soundly, nothing is written\n", disk.uuidText);
  return sound;
}

UnitRange AllocatableUnits(const KABDiskCtx& disk) {
  const SuperBlk& sb = *SuperBlkOf(&disk);
  const uint64_t first = 2 * sb.expansion1Size;
  const uint64_t onDisk = 2 * (CapacityBlks(disk) - sb.dataStart);
  const uint64_t dataSize = std::min<uint64_t>(sb.dataSize, onDisk);
  const uint64_t end = std::min({first + dataSize, onDisk, sb.bmapSize * kBitsPerBlk, kNoUnit - sb.dataStart});
  return {first, std::max(first, end)};
}

uint32_t WriteBitmapBlk(KABDiskCtx* disk, uint64_t index, BitmapBlk* blk) {
  blk->hdr.checksum = BlkChecksum(blk);
  uint32_t st = DDPWriteBitmapBlks(disk, index, 1, blk);
  if (st == KAB_OK && HasMdr(*SuperBlkOf(disk))) {
    const SuperBlk& sb = *SuperBlkOf(disk);
    st = WriteAt(disk, kAreaOffset, sb.hmapStart + sb.hmapSize + sb.bmapStart, index, 1, blk);
  }
  if (st != KAB_OK) Log("%s: Error: Failed to write bitmap block %lu\n", disk->uuidText, index);
  return st;
}

// ---- Taking

Allocator::Held* Allocator::Find(const KABDiskCtx* disk, uint64_t index) {
  for (uint32_t i = 0; i < held_; ++i) {
    if (blks_[i].disk == disk && blks_[i].index == index) return &blks_[i];
  }
  return nullptr;
}

Allocator::Cursor* Allocator::CursorOf(const KABDiskCtx* disk, uint64_t first) {
  for (uint32_t i = 0; i < cursors_; ++i) {
    if (cursor_[i].disk == disk) return &cursor_[i];
  }
  cursor_[cursors_] = {disk, first};
  return &cursor_[cursors_++];
}

bool Allocator::TakeOne(KABDiskCtx* disk, Cursor* cursor, const UnitRange& range, uint64_t* unit) {
  while (cursor->unit < range.end) {
    const uint64_t index = cursor->unit / kBitsPerBlk;
    Held* from = Find(disk, index);
    if (from == nullptr) {
      from = &blks_[held_];
      const uint32_t st = DDPReadBitmapBlks(disk, index, 1, &from->blk, nullptr);
      if (st != KAB_OK || DDPIsValidBlkHdr(disk, &from->blk, DDP_BLK_BITMAP, index) == 0) {
        Log("%s: MetaError: Bitmap block %lu is damaged, its units are taken for in use\n", disk->uuidText, index);
        cursor->unit = (index + 1) * kBitsPerBlk;
        continue;
      }
    }
    const uint32_t bit = FindClear(from->blk, static_cast<uint32_t>(cursor->unit % kBitsPerBlk));
    cursor->unit = index * kBitsPerBlk + bit;
    if (bit == kBitsPerBlk) continue;
    if (cursor->unit >= range.end) break;
    if (from == &blks_[held_]) {
      from->disk = disk;
      from->index = index;
      ++held_;
    }
    Toggle(&from->blk, bit);
    *unit = cursor->unit++;
    return true;
  }
  return false;
}

bool Allocator::Take(KABDiskCtx* disk, uint32_t count, uint64_t units[kUnitsPerRequest]) {
  const UnitRange range = AllocatableUnits(*disk);
  Cursor* const cursor = CursorOf(disk, range.first);
  for (uint32_t i = 0; i < count; ++i) {
    if (TakeOne(disk, cursor, range, &units[i])) continue;
    PutBack(disk, i, units);  // a single unit is left: the next block may be content with it
    return false;
  }
  return true;
}

void Allocator::PutBack(KABDiskCtx* disk, uint32_t count, const uint64_t* units) {
  for (uint32_t i = 0; i < count; ++i) {
    Toggle(&Find(disk, units[i] / kBitsPerBlk)->blk, static_cast<uint32_t>(units[i] % kBitsPerBlk));
  }
  if (count != 0) CursorOf(disk, 0)->unit = units[0];
}

uint32_t Allocator::Commit() {
  for (uint32_t i = 0; i < held_; ++i) {
    const uint32_t st = WriteBitmapBlk(blks_[i].disk, blks_[i].index, &blks_[i].blk);
    if (st != KAB_OK) return st;
  }
  held_ = 0;
  return KAB_OK;
}

// ---- Giving back

namespace {

Replaced* Find(std::span<Replaced> sorted, uint64_t key) {
  Replaced* end = sorted.data() + sorted.size();
  Replaced* found = std::lower_bound(sorted.data(), end, key, [](const Replaced& r, uint64_t k) { return r.key < k; });
  return found != end && found->key == key ? found : nullptr;
}

void Keep(std::span<Replaced> sorted, uint64_t key) {
  Replaced* found = Find(sorted, key);
  for (; found != nullptr && found != sorted.data() + sorted.size() && found->key == key; ++found) found->kept = 1;
}

bool IsKept(std::span<Replaced> sorted, uint64_t key) {
  const Replaced* found = Find(sorted, key);
  return found != nullptr && found->kept != 0;
}

// Whether a block shows all references it was written with. One with a wrong checksum may have lost some to damage, and
// be put right from its second copy later.
bool IsWholeOrEmpty(KABDiskCtx* disk, const void* block, uint32_t type, uint64_t index) {
  if (DDPIsValidBlkHdr(disk, block, type, index) != 0) return true;
  const auto* at = static_cast<const uint8_t*>(block);
  return at[0] == 0 && std::memcmp(at, at + 1, kBlockSize - 1) == 0;
}

// Keeps what the disk's translation map refers to. False when a block of it might hold references that do not show.
bool KeepMapped(KABDiskCtx* disk, bool group, std::span<Replaced> replaced) {
  const SuperBlk& sb = *SuperBlkOf(disk);
  XmapBlk blk;
  const uint64_t size = sb.xmapSize + sb.expansion1Size / 2;
  for (uint64_t index = 0; index < size; ++index) {
    if (DDPReadXMapBlks(disk, index, 1, &blk, nullptr) != KAB_OK) return false;
    if (!IsWholeOrEmpty(disk, &blk, DDP_BLK_XMAP, index)) return false;
    for (const XmapEntry& entry : blk.entries) {
      const Record record = Unpack(entry.record);
      const uint64_t devIdx = group ? record.devIdx : 0;
      Keep(replaced, Replaced::Key(devIdx, record.unit1));
      Keep(replaced, Replaced::Key(devIdx, record.unit2));
    }
  }
  return true;
}

// A hash entry may hand its block out again. It names the first unit; the second is kept with it.
bool KeepHashed(KABDiskCtx* disk, bool group, std::span<Replaced> replaced) {
  const SuperBlk& sb = *SuperBlkOf(disk);
  HashMapBlk blk;
  for (uint64_t index = 0; index < sb.hmapSize; ++index) {
    if (DDPReadHashMapBlks(disk, index, 1, &blk, nullptr) != KAB_OK) return false;
    if (!IsWholeOrEmpty(disk, &blk, DDP_BLK_HASH_MAP, index)) return false;
    for (const HashEntry& entry : blk.entries) {
      const uint64_t pbn = entry.pbn;
      Keep(replaced, Replaced::Key(group ? pbn >> kDevShift : 0, pbn & kNoUnit));
    }
  }
  return true;
}

// Clears the bits of one bitmap block's worth of units, all on one disk. Returns the status of the write.
uint32_t ClearBits(KABDiskCtx* disk, uint64_t index, std::span<const uint64_t> units) {
  BitmapBlk blk;
  if (DDPReadBitmapBlks(disk, index, 1, &blk, nullptr) != KAB_OK ||
      DDPIsValidBlkHdr(disk, &blk, DDP_BLK_BITMAP, index) == 0) {
    return KAB_OK;
  }
  for (const uint64_t unit : units) {
    const auto bit = static_cast<uint32_t>(unit % kBitsPerBlk);
    if (IsSet(blk, bit)) Toggle(&blk, bit);
  }
  return WriteBitmapBlk(disk, index, &blk);
}

}  // namespace

uint32_t ReleaseUnreferenced(KABDiskCtx* ctx, std::span<Replaced> replaced) {
  if (replaced.empty()) return KAB_OK;
  const bool group = IsGroupDedup(*ctx);
  KABDiskCtx* disks[KAB_DISKS_PER_GROUP] = {ctx};
  if (group) {
    // Every member may refer to every other: one that is not here could hold the reference that counts.
    for (uint32_t i = 0; i < KAB_DISKS_PER_GROUP; ++i) {
      disks[i] = ctx->group->disks[i];
      if ((disks[i] == nullptr) != !IsListedMember(*ctx->group, i)) return KAB_OK;
      if (disks[i] != nullptr && SuperBlkOf(disks[i]) == nullptr) return KAB_OK;
    }
  }
  std::sort(replaced.begin(), replaced.end(), [](const Replaced& a, const Replaced& b) { return a.key < b.key; });
  for (KABDiskCtx* disk : disks) {
    if (disk == nullptr) continue;
    if (!IsWritableLayout(*disk) || !KeepMapped(disk, group, replaced) || !KeepHashed(disk, group, replaced)) {
      return KAB_OK;
    }
  }

  uint64_t units[64];
  uint32_t count = 0;
  KABDiskCtx* disk = nullptr;
  uint64_t index = 0;
  for (const Replaced& r : replaced) {
    if (r.kept != 0 || (r.partner != Replaced::kNoPartner && IsKept(replaced, r.partner))) continue;
    KABDiskCtx* const owner = disks[r.key >> kUnitBits];
    if (owner == nullptr) continue;
    const uint64_t unit = (r.key & kNoUnit) - SuperBlkOf(owner)->dataStart;
    const UnitRange range = AllocatableUnits(*owner);
    if (unit < range.first || unit >= range.end) continue;
    if (count == std::size(units) || (count != 0 && (owner != disk || unit / kBitsPerBlk != index))) {
      const uint32_t st = ClearBits(disk, index, {units, count});
      if (st != KAB_OK) return st;
      count = 0;
    }
    disk = owner;
    index = unit / kBitsPerBlk;
    units[count++] = unit;
  }
  return count == 0 ? uint32_t{KAB_OK} : ClearBits(disk, index, {units, count});
}

}  // namespace kab::ddp
