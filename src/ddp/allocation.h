#pragma once
// Units of the data region, handed out from the allocation bitmap and given back to it.

#include <span>

#include "ddp/packed_block_format.h"
#include "ddp/regions_format.h"
#include "ddp/superblock.h"

namespace kab::ddp {

/// Whether the superblock's regions lie apart and on the disk, so that a write meant for one cannot hit another.
bool IsWritableLayout(const KABDiskCtx& disk);

/// The units that may be handed out, counted from the data region's start: behind the translation map's expansion.
struct UnitRange {
  uint64_t first;
  uint64_t end;
};
UnitRange AllocatableUnits(const KABDiskCtx& disk);

/// Writes a bitmap block with its checksum, and its second copy where there is one. A failure is told.
uint32_t WriteBitmapBlk(KABDiskCtx* disk, uint64_t index, BitmapBlk* blk);

/// Bitmap blocks held in memory between the choice of units and the write that makes it last.
class Allocator {
 public:
  static constexpr uint32_t kUnitsPerRequest = 2;

  /// Chooses `count` (1 or 2) units on one disk and marks them in memory. False when there are none: nothing is marked.
  /// Before a request, HasRoom must hold.
  bool Take(KABDiskCtx* disk, uint32_t count, uint64_t units[kUnitsPerRequest]);
  /// Undoes a Take before it was committed.
  void PutBack(KABDiskCtx* disk, uint32_t count, const uint64_t* units);
  bool HasRoom() const { return held_ + kUnitsPerRequest <= kHeld; }

  /// Writes what was marked. A failure is told; the rest stays unwritten.
  uint32_t Commit();
  /// Lets go of the blocks when nothing in them is marked that is not on the disk.
  void Forget() { held_ = 0; }
  /// Searches from the beginning again: units were given back.
  void Restart() { held_ = cursors_ = 0; }

 private:
  static constexpr uint32_t kHeld = 4;

  struct Held {
    KABDiskCtx* disk;
    uint64_t index;
    BitmapBlk blk;
  };

  // Where the search on a disk goes on: everything before it is in use.
  struct Cursor {
    const KABDiskCtx* disk;
    uint64_t unit;
  };

  Held* Find(const KABDiskCtx* disk, uint64_t index);
  Cursor* CursorOf(const KABDiskCtx* disk, uint64_t first);
  bool TakeOne(KABDiskCtx* disk, Cursor* cursor, const UnitRange& range, uint64_t* unit);

  uint32_t held_ = 0;
  uint32_t cursors_ = 0;
  Cursor cursor_[KAB_DISKS_PER_GROUP] = {};
  Held blks_[kHeld + 1];  // the last is where a block is looked at first
};

/// A unit that a write replaced. Its key is that of its disk and its number together, in this order.
struct Replaced {
  uint64_t key;
  uint64_t partner;  // key of the block's other unit, kNoPartner for a compressed block
  uint64_t kept;     // nonzero: something still refers to it

  static constexpr uint64_t kNoPartner = ~uint64_t{0};
  static uint64_t Key(uint64_t devIdx, uint64_t unit) { return (devIdx << kUnitBits) | unit; }
};

/// Gives back the units that nothing refers to any longer: no entry of a translation map, no entry of a hash map. Where
/// that cannot be made sure, they stay in use. Reads the maps of the whole group once. The status is that of the
/// writes.
uint32_t ReleaseUnreferenced(KABDiskCtx* ctx, std::span<Replaced> replaced);

}  // namespace kab::ddp
