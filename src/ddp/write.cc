// Writing logical bytes. New contents never overwrite old ones: they go to free units, the bitmap says so, and only
// then does the translation map change over. Each of these writes may be the last one that reaches the disk.

#include <lz4.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "ddp/allocation.h"
#include "ddp/packed_block.h"
#include "ddp/regions.h"
#include "kab/core.h"
#include "kab/ddp.h"

namespace kab::ddp {
namespace {

// Replaced units that one look through the group's maps judges.
constexpr uint32_t kReplacedBatch = 4096;

bool IsZero(const uint8_t* block) { return block[0] == 0 && std::memcmp(block, block + 1, kBlockSize - 1) == 0; }

class Writer {
 public:
  explicit Writer(KABDiskCtx* ctx) : ctx_(ctx), group_(IsGroupDedup(*ctx)), map_(ctx) {}

  uint32_t Run(const uint8_t* in, uint32_t len, uint64_t offset) {
    if (!FindTargets()) return KAB_BLOCK_INVALID;
    uint32_t st = KAB_OK;
    while (len != 0 && st == KAB_OK) {
      const Piece piece = FirstPiece(*ctx_, offset, len);
      st = WritePiece(piece, in, offset);
      in += piece.length;
      offset += piece.length;
      len -= piece.length;
    }
    // Blocks before one that failed are whole: they are seen through, unless it was just this that failed.
    if (commitFailed_) return st;
    const uint32_t last = Commit();
    if (last != KAB_OK) return st == KAB_OK ? last : st;
    const uint32_t released = Release();
    return st == KAB_OK ? released : st;
  }

 private:
  struct Target {
    KABDiskCtx* disk;
    uint32_t devIdx;  // as records hold it
  };

  // Where units may be taken: on the disk itself, in a deduplicating group on the other members after it. Members whose
  // index a reader would refuse are left out.
  bool FindTargets() {
    if (!IsWritableLayout(*ctx_)) return false;
    if (!group_) {
      targets_[targetCount_++] = {ctx_, 0};
      return true;
    }
    const KABDiskCtx& group = *ctx_->group;
    const auto own = static_cast<uint32_t>(ctx_->devIdx);
    if (own < group.openDiskCount) targets_[targetCount_++] = {ctx_, own};
    for (uint32_t slot = 0; slot < KAB_DISKS_PER_GROUP && slot < group.openDiskCount; ++slot) {
      KABDiskCtx* member = group.disks[slot];
      if (slot == own || SuperBlkOf(member) == nullptr || !IsGroupDedup(*member) || !IsWritableLayout(*member))
        continue;
      targets_[targetCount_++] = {member, slot};
    }
    return true;
  }

  uint32_t WritePiece(const Piece& piece, const uint8_t* in, uint64_t offset) {
    uint32_t st = LoadMap(piece.logicalBlk);
    if (st != KAB_OK) return st;
    const uint8_t* record = nullptr;
    bool mapped = false;
    st = map_.RecordOf(piece.logicalBlk, &record, &mapped);
    if (st != KAB_OK) {
      Log("%s: Error: Failed to Write block at offset %lu\n", ctx_->uuidText, offset);
      return st;
    }
    uint8_t merged[kBlockSize];
    const uint8_t* block = in;
    if (piece.length != kBlockSize) {
      if (mapped) {
        st = DDPReadFromPackedPBN(ctx_, record, merged);
        if (st != KAB_OK) return st;
      } else {
        std::memset(merged, 0, sizeof merged);
      }
      std::memcpy(merged + piece.at, in, piece.length);
      block = merged;
    }
    Record next{DDP_BLK_DATA, 0, kNoUnit, kNoUnit};  // a zero block needs no unit: what is not mapped reads as zeros
    if (IsZero(block)) {
      if (!mapped) return KAB_OK;
    } else {
      st = Store(block, offset, &next);
      if (st != KAB_OK) return st;
    }
    if (mapped) NoteReplaced(Unpack(record));
    XmapEntry& entry = map_.EntryOf(piece.logicalBlk);
    // The entry's other bytes told of the old contents.
    std::memset(entry.unread0, 0, sizeof entry.unread0);
    Pack(next, entry.record);
    mapDirty_ = true;
    return KAB_OK;
  }

  // Makes the block's xmap block the current one, after seeing the former one through.
  uint32_t LoadMap(uint64_t logicalBlk) {
    const uint64_t index = logicalBlk / kXmapEntriesPerBlk;
    if (loaded_ && index == map_.Index()) return KAB_OK;
    uint32_t st = Commit();
    if (st == KAB_OK && replacedCount_ > kReplacedBatch - 2 * kXmapEntriesPerBlk) st = Release();
    if (st != KAB_OK) return st;
    loaded_ = false;
    const SuperBlk& sb = *SuperBlkOf(ctx_);
    if (index >= sb.xmapSize + sb.expansion1Size / 2) {
      Log("%s: Error: Logical block %lu lies beyond the translation map\n", ctx_->uuidText, logicalBlk);
      return KAB_INVALID_ARGUMENT;
    }
    st = map_.Load(logicalBlk);
    if (st != KAB_OK) return st;
    if (!map_.Trusted()) {
      MakeFresh(index);
    } else if (DDPIsValidBlkHdr(ctx_, &map_.Blk(), DDP_BLK_XMAP, index) == 0) {
      // A new checksum would hide the damage.
      Log("%s: MetaError: XMap block %lu is damaged, it is not written to\n", ctx_->uuidText, index);
      return KAB_BLOCK_INVALID;
    }
    loaded_ = true;
    return KAB_OK;
  }

  void MakeFresh(uint64_t index) {
    const SuperBlk& sb = *SuperBlkOf(ctx_);
    XmapBlk& blk = map_.Blk();
    std::memset(static_cast<void*>(&blk), 0, sizeof blk);
    blk.hdr.magic = kMagic;
    blk.hdr.blkType = DDP_BLK_XMAP;
    blk.hdr.owner = sb.id;
    blk.hdr.tag = AddressTag(*ctx_, DDP_BLK_XMAP, AbsoluteBlk(sb, DDP_BLK_XMAP, index));
    for (XmapEntry& entry : blk.entries) Pack({DDP_BLK_DATA, 0, kNoUnit, kNoUnit}, entry.record);
    map_.SetTrusted();
  }

  // Puts a block into free units: one when it compresses well enough, else two.
  uint32_t Store(const uint8_t* block, uint64_t offset, Record* record) {
    uint8_t packed[kUnitSize] = {};
    const int length = LZ4_compress_default(reinterpret_cast<const char*>(block), reinterpret_cast<char*>(packed),
                                            kBlockSize, kLengthAt);
    const uint32_t count = length > 0 ? 1 : 2;
    const le16 stored = static_cast<uint16_t>(length);
    std::memcpy(packed + kLengthAt, &stored, sizeof stored);

    uint64_t units[Allocator::kUnitsPerRequest] = {};
    const Target* target = nullptr;
    const uint32_t st = TakeUnits(count, units, &target);
    if (st != KAB_OK) return st;
    if (target == nullptr) {
      Log("%s: Error: No free units left, block at offset %lu is not written\n", ctx_->uuidText, offset);
      return KAB_GENERAL_FAILURE;
    }
    uint32_t written = WriteUnit(target->disk, units[0], count == 1 ? packed : block);
    if (written == KAB_OK && count == 2) written = WriteUnit(target->disk, units[1], block + kUnitSize);
    if (written != KAB_OK) {
      allocator_.PutBack(target->disk, count, units);
      return written;
    }
    const uint64_t dataStart = SuperBlkOf(target->disk)->dataStart;
    *record = {DDP_BLK_DATA, target->devIdx, dataStart + units[0], count == 2 ? dataStart + units[1] : kNoUnit};
    return KAB_OK;
  }

  // Null for the target when the data regions are full, even with what the blocks written so far gave back.
  uint32_t TakeUnits(uint32_t count, uint64_t* units, const Target** target) {
    for (;;) {
      for (uint32_t i = 0; i < targetCount_; ++i) {
        if (!allocator_.HasRoom()) {
          const uint32_t st = Commit();
          if (st != KAB_OK) return st;
        }
        if (!allocator_.Take(targets_[i].disk, count, units)) continue;
        *target = &targets_[i];
        return KAB_OK;
      }
      if (replacedCount_ == 0) return KAB_OK;
      uint32_t st = Commit();
      if (st == KAB_OK) st = Release();
      if (st != KAB_OK) return st;
    }
  }

  static uint32_t WriteUnit(KABDiskCtx* disk, uint64_t unit, const uint8_t* bytes) {
    const uint64_t offset = disk->dedupCtx.superBlkLoc + (unit + 2 * SuperBlkOf(disk)->dataStart) * kUnitSize;
    const uint32_t st = KABWrite(disk, bytes, kUnitSize, static_cast<int64_t>(offset));
    if (st != KAB_OK) Log("%s: Error: Failed to write data to unit %lu\n", disk->uuidText, unit);
    return st;
  }

  // The data lies on the disk by now: the bitmap, then the map.
  uint32_t Commit() {
    if (!mapDirty_) {
      allocator_.Forget();
      return KAB_OK;
    }
    commitFailed_ = true;
    uint32_t st = allocator_.Commit();
    if (st != KAB_OK) return st;
    st = WriteMap();
    if (st != KAB_OK) {
      Log("%s: Error: Failed to write XMap block %lu\n", ctx_->uuidText, map_.Index());
      return st;
    }
    commitFailed_ = false;
    mapDirty_ = false;
    return KAB_OK;
  }

  void NoteReplaced(const Record& record) {
    if (replaced_ == nullptr) {
      replaced_.reset(static_cast<Replaced*>(KABAlloc(kReplacedBatch * sizeof(Replaced))));
      if (replaced_ == nullptr) return;  // the units stay in use
    }
    const uint64_t devIdx = group_ ? record.devIdx : 0;
    const uint64_t first = Replaced::Key(devIdx, record.unit1);
    const uint64_t second = record.HasSecond() ? Replaced::Key(devIdx, record.unit2) : Replaced::kNoPartner;
    replaced_[replacedCount_++] = {first, second, 0};
    if (record.HasSecond()) replaced_[replacedCount_++] = {second, first, 0};
  }

  // Only after a commit: until then the map on the disk still refers to them.
  uint32_t Release() {
    const uint32_t count = std::exchange(replacedCount_, 0);
    const uint32_t st = ReleaseUnreferenced(ctx_, {replaced_.get(), count});
    allocator_.Restart();  // whatever was given back lies behind its cursors
    return st;
  }

  uint32_t WriteMap() {
    const SuperBlk& sb = *SuperBlkOf(ctx_);
    XmapBlk& blk = map_.Blk();
    blk.hdr.checksum = BlkChecksum(&blk);
    const uint64_t area = ctx_->dedupCtx.superBlkLoc;
    const uint64_t index = map_.Index();
    if (index < sb.xmapSize) {
      const uint32_t st = DDPWriteXMapBlks(ctx_, index, 1, &blk);
      if (st != KAB_OK || !HasMdr(sb)) return st;
      return WriteAt(ctx_, area, sb.hmapStart + sb.hmapSize + sb.xmapStart, index, 1, &blk);
    }
    const uint64_t relative = index - sb.xmapSize;
    const uint32_t st = WriteAt(ctx_, area, sb.dataStart, relative, 1, &blk);
    if (st != KAB_OK || !HasMdr(sb)) return st;
    return WriteAt(ctx_, area, sb.dataStart + sb.expansion1Size / 2, relative, 1, &blk);
  }

  KABDiskCtx* ctx_;
  bool group_;
  bool loaded_ = false;
  bool mapDirty_ = false;
  bool commitFailed_ = false;
  uint32_t targetCount_ = 0;
  uint32_t replacedCount_ = 0;
  Target targets_[KAB_DISKS_PER_GROUP] = {};
  Owned<Replaced[]> replaced_;
  Translation map_;
  Allocator allocator_;
};

}  // namespace
}  // namespace kab::ddp

uint32_t DDPWrite(KABDiskCtx* ctx, const void* buf, uint32_t len, uint64_t offset) {
  if (ctx->group == nullptr || kab::ddp::SuperBlkOf(ctx) == nullptr) return KAB_NOT_SUPPORTED;
  if (len == 0) return KAB_OK;
  return kab::ddp::Writer(ctx).Run(static_cast<const uint8_t*>(buf), len, offset);
}
