// Logical blocks, fetched or dumped through the translation map from the units that hold them.

#include "ddp/packed_block.h"

#include <lz4.h>

#include <algorithm>
#include <cstring>

#include "core/frame/log.h"
#include "ddp/regions.h"
#include "kab/core.h"
#include "kab/ddp.h"
#include "kab/dump.h"

namespace kab::ddp {
namespace {

// A record, and the disk that holds its units.
struct Source {
  Record record;
  KABDiskCtx* disk;
};

uint32_t FindSource(KABDiskCtx* ctx, const void* record, Source* source) {
  source->record = Unpack(static_cast<const uint8_t*>(record));
  source->disk = DiskOfDevIdx(ctx, source->record.devIdx);
  if (source->disk == nullptr) return KAB_NOT_MAPPED;
  return SuperBlkOf(source->disk) == nullptr ? KAB_NOT_SUPPORTED : KAB_OK;
}

uint32_t ReadUnit(const Source& source, uint64_t unit, void* dst, uint64_t* number) {
  UnitPlace place{};
  const uint32_t st = PlaceUnit(*source.disk, source.record.FullPbn(unit), &place);
  if (st != KAB_OK) return st;
  *number = place.number;
  return KABRead(source.disk, dst, kUnitSize, place.offset);
}

uint32_t DumpUnit(const Source& source, uint64_t unit) {
  if (source.disk->dumpFile == nullptr) return KAB_INVALID_ARGUMENT;
  UnitPlace place{};
  const uint32_t st = PlaceUnit(*source.disk, source.record.FullPbn(unit), &place);
  if (st != KAB_OK) return st;
  return KABAddChunkToDump(source.disk->dumpFile, source.disk, kUnitSize, static_cast<uint64_t>(place.offset));
}

// Walks a logical range. `visit` gets each piece with its record, null when the block is not mapped.
template <class Visit>
uint32_t Walk(KABDiskCtx* ctx, uint32_t len, uint64_t offset, const char* invalidDeviceLine, Visit visit) {
  Translation map(ctx);
  while (len != 0) {
    const Piece piece = FirstPiece(*ctx, offset, len);
    uint32_t st = map.Load(piece.logicalBlk);
    if (st != KAB_OK) return st;
    const uint8_t* record = nullptr;
    bool mapped = false;
    st = map.RecordOf(piece.logicalBlk, &record, &mapped);
    if (st != KAB_OK) {
      Log(invalidDeviceLine, ctx->uuidText, offset);
      return st;
    }
    st = visit(piece, mapped ? record : nullptr);
    if (st != KAB_OK) return st;
    offset += piece.length;
    len -= piece.length;
  }
  return KAB_OK;
}

}  // namespace

uint32_t Translation::Load(uint64_t logicalBlk) {
  const uint64_t index = logicalBlk / kXmapEntriesPerBlk;
  if (loaded_ && index == index_) return KAB_OK;
  loaded_ = false;
  const uint32_t st = DDPReadXMapBlks(ctx_, index, 1, &blk_, nullptr);
  if (st != KAB_OK) {
    Log("%s: Error: Failed to to read XMap block for translation\n", ctx_->uuidText);
    return st;
  }
  loaded_ = true;
  index_ = index;
  trusted_ = blk_.hdr.magic == kMagic && blk_.hdr.owner == SuperBlkOf(ctx_)->id;
  return KAB_OK;
}

uint32_t Translation::RecordOf(uint64_t logicalBlk, const uint8_t** record, bool* mapped) {
  *record = EntryOf(logicalBlk).record;
  *mapped = false;
  if (!trusted_) return KAB_OK;
  const Record unpacked = Unpack(*record);
  const uint32_t members = ctx_->group->openDiskCount;
  if (unpacked.devIdx >= members) {
    Log("%s: MetaError: Invalid Device idx %u >= numDisks %u\n", ctx_->uuidText, unpacked.devIdx, members);
    return KAB_INVALID_DEVICE_IDX;
  }
  *mapped = unpacked.HasFirst() && unpacked.type == DDP_BLK_DATA;
  return KAB_OK;
}

uint32_t PlaceUnit(const KABDiskCtx& disk, uint64_t pbn, UnitPlace* place) {
  const SuperBlk& sb = *SuperBlkOf(&disk);
  const uint64_t number = RelativeNumber(sb, pbn);
  const uint64_t unit = number + 2 * sb.dataStart;  // of the area
  const auto offset = static_cast<int64_t>(disk.dedupCtx.superBlkLoc + unit * kUnitSize);
  // Bounded by the disk, not by the stored size of the region: a spoilt size must not cost what can still be read.
  // Numbers below the region's start have wrapped.
  const bool inArea = number <= kBlkMask && sb.dataStart <= CapacityBlks(disk);
  const bool beyondDisk = inArea && static_cast<uint64_t>(offset) > disk.diskSize - kUnitSize;
  if (!inArea || (unit >= 2 * CapacityBlks(disk) && !beyondDisk)) {
    Log("%s: MetaError: PBN 0x%lx lies outside the data region\n", disk.uuidText, pbn);
    return KAB_BLOCK_INVALID;
  }
  *place = {number, offset};
  return KAB_OK;
}

Piece FirstPiece(const KABDiskCtx& ctx, uint64_t offset, uint32_t len) {
  const auto at = static_cast<uint32_t>(offset % kBlockSize);
  return {offset >> ctx.dedupCtx.blkShift, at, std::min(kBlockSize - at, len)};
}

}  // namespace kab::ddp

using namespace kab::ddp;

uint32_t DDPReadFromPackedPBN(KABDiskCtx* ctx, const void* record, void* dst) {
  Source source;
  uint32_t st = FindSource(ctx, record, &source);
  if (st != KAB_OK) return st;
  const char* name = source.disk->uuidText;
  auto* bytes = static_cast<uint8_t*>(dst);
  const bool raw = source.record.HasSecond();
  uint8_t work[kUnitSize];
  uint64_t number = 0;

  st = ReadUnit(source, source.record.unit1, raw ? bytes : work, &number);
  if (st != KAB_OK) {
    kab::Log("%s: Error: Failed to read data from PBN1\n", name);
    return st;
  }
  if (raw) {
    st = ReadUnit(source, source.record.unit2, bytes + kUnitSize, &number);
    if (st != KAB_OK) kab::Log("%s: Error: Failed to read data from PBN2\n", name);
    return st;
  }
  // The mask keeps a stored length within the unit.
  const int length = kab::Load<kab::le16>(work + kLengthAt) & kLengthMask;
  const int got = LZ4_decompress_safe(reinterpret_cast<const char*>(work), static_cast<char*>(dst), length, kBlockSize);
  if (got != static_cast<int>(kBlockSize)) {
    kab::Log("%s: Error: Failed to decompress data from block %lu\n", name, number);
    return KAB_DECOMPRESS_FAILED;
  }
  return KAB_OK;
}

uint32_t DDPRead(KABDiskCtx* ctx, void* buf, uint32_t len, uint64_t offset) {
  if (ctx->group == nullptr || SuperBlkOf(ctx) == nullptr) return KAB_NOT_SUPPORTED;
  auto* out = static_cast<uint8_t*>(buf);
  return Walk(ctx, len, offset, "%s: Error: Failed to Read block at offset %lu\n",
              [&](const Piece& piece, const uint8_t* record) -> uint32_t {
                uint8_t* const to = out;
                out += piece.length;
                if (record == nullptr) {
                  std::memset(to, 0, piece.length);
                  return KAB_OK;
                }
                if (piece.length == kBlockSize) return DDPReadFromPackedPBN(ctx, record, to);
                uint8_t block[kBlockSize];
                const uint32_t st = DDPReadFromPackedPBN(ctx, record, block);
                if (st == KAB_OK) std::memcpy(to, block + piece.at, piece.length);
                return st;
              });
}

uint32_t DDPDumpFromPackedPBN(KABDiskCtx* ctx, const void* record) {
  Source source;
  uint32_t st = FindSource(ctx, record, &source);
  if (st != KAB_OK) return st;
  st = DumpUnit(source, source.record.unit1);
  if (st != KAB_OK) {
    kab::Log("%s: Error: Failed to dump data from PBN1\n", source.disk->uuidText);
    return st;
  }
  if (!source.record.HasSecond()) return KAB_OK;
  st = DumpUnit(source, source.record.unit2);
  if (st != KAB_OK) kab::Log("%s: Error: Failed to dump data from PBN2\n", source.disk->uuidText);
  return st;
}

uint32_t DDPDump(KABDiskCtx* ctx, uint32_t len, uint64_t offset) {
  if (ctx->group == nullptr || SuperBlkOf(ctx) == nullptr) return KAB_NOT_SUPPORTED;
  if (len == 0) return KAB_OK;
  if (ctx->dumpFile == nullptr) return KAB_INVALID_ARGUMENT;
  return Walk(ctx, len, offset, "%s: Error: Failed to Dump block at offset %lu\n",
              [&](const Piece&, const uint8_t* record) -> uint32_t {
                return record == nullptr ? uint32_t{KAB_OK} : DDPDumpFromPackedPBN(ctx, record);
              });
}
