#pragma once
// The translation of one logical range, step by step, as reads, dumps and writes make it.

#include "ddp/packed_block_format.h"
#include "ddp/superblock.h"

namespace kab::ddp {

/// The xmap block of one logical block after the other. Blocks in one xmap block share its read; nothing outlives the
/// call that owns this.
class Translation {
 public:
  explicit Translation(KABDiskCtx* ctx) : ctx_(ctx) {}

  /// Reads the xmap block of a logical block, unless it is the one just read.
  uint32_t Load(uint64_t logicalBlk);

  /// Its magic and owner were right. The checksum is not looked at here.
  bool Trusted() const { return trusted_; }
  /// The caller made a block of its own.
  void SetTrusted() { trusted_ = true; }
  /// The number of the block that was loaded, as the map counts them.
  uint64_t Index() const { return index_; }
  XmapBlk& Blk() { return blk_; }
  XmapEntry& EntryOf(uint64_t logicalBlk) { return blk_.entries[logicalBlk % kXmapEntriesPerBlk]; }

  /// The entry's record, or an unmapped one when the block is not to be trusted. 22 with a line when it names a
  /// member that the group does not have.
  uint32_t RecordOf(uint64_t logicalBlk, const uint8_t** record, bool* mapped);

 private:
  KABDiskCtx* ctx_;
  uint64_t index_ = ~uint64_t{0};
  bool loaded_ = false;
  bool trusted_ = false;
  XmapBlk blk_;
};

/// Where a unit lies: its number relative to the data region and its byte offset on the disk.
struct UnitPlace {
  uint64_t number;
  int64_t offset;
};

/// Finds a unit. 9 with a line when it lies outside the data region; a place beyond the disk is left to the transfer.
uint32_t PlaceUnit(const KABDiskCtx& disk, uint64_t pbn, UnitPlace* place);

/// The part of a request that lies in one logical block.
struct Piece {
  uint64_t logicalBlk;
  uint32_t at;      // in the block
  uint32_t length;  // to the end of the block or of the request
};
Piece FirstPiece(const KABDiskCtx& ctx, uint64_t offset, uint32_t len);

}  // namespace kab::ddp
