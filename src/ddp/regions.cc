// Readers and writers of the metadata regions, and a PBN's bit in the allocation bitmap.

#include "ddp/regions.h"

#include "core/frame/log.h"
#include "ddp/regions_format.h"
#include "kab/core.h"
#include "kab/ddp.h"

namespace kab::ddp {
namespace {

constexpr uint64_t kCompressionTxnOffset = 0x302000;  // bytes

// The low 20 bits count, so that the length fits 32 bits.
uint32_t Length(uint32_t count) { return count << kBlockShift; }

enum class Way { kRead, kWrite };

uint32_t Transfer(Way way, KABDiskCtx* ctx, le64 SuperBlk::*start, uint64_t index, uint32_t count, void* buf,
                  uint64_t* locOut) {
  const SuperBlk* sb = SuperBlkOf(ctx);
  if (sb == nullptr) return KAB_NOT_SUPPORTED;
  const uint64_t area = ctx->dedupCtx.superBlkLoc;
  if (way == Way::kWrite) return WriteAt(ctx, area, sb->*start, index, count, buf);
  return ReadAt(ctx, area, sb->*start, index, count, buf, locOut);
}

uint32_t Read(KABDiskCtx* ctx, le64 SuperBlk::*start, uint64_t index, uint32_t count, void* buf, uint64_t* locOut) {
  return Transfer(Way::kRead, ctx, start, index, count, buf, locOut);
}

uint32_t Write(KABDiskCtx* ctx, le64 SuperBlk::*start, uint64_t index, uint32_t count, const void* buf) {
  return Transfer(Way::kWrite, ctx, start, index, count, const_cast<void*>(buf), nullptr);
}

// The map bitmaps' starts by type; null for any other type.
le64 SuperBlk::*MapBitmapStart(uint32_t type) {
  switch (type) {
    case DDP_BLK_META_BMAP_HMAP:
      return &SuperBlk::metaBmapHmapStart;
    case DDP_BLK_META_BMAP_BMAP:
      return &SuperBlk::metaBmapBmapStart;
    case DDP_BLK_META_BMAP_XMAP:
      return &SuperBlk::metaBmapXmapStart;
    default:
      return nullptr;
  }
}

// Where a PBN's bit is. The layout is that of the disk the PBN names, the block is read from the disk asked.
struct BitPlace {
  uint64_t blk;
  uint32_t byte;
  uint8_t mask;
};

uint32_t FindBit(KABDiskCtx* ctx, uint64_t pbn, BitPlace* place, BitmapBlk* blk) {
  const KABDiskCtx* owner = DiskOfDevIdx(ctx, pbn >> kDevShift);
  if (owner == nullptr) return KAB_NOT_MAPPED;
  if (SuperBlkOf(owner) == nullptr) return KAB_NOT_SUPPORTED;
  const uint64_t n = RelativeNumber(*SuperBlkOf(owner), pbn);
  const auto bit = static_cast<uint32_t>(n % kBitsPerBlk);
  *place = {n / kBitsPerBlk, bit / 8, static_cast<uint8_t>(1U << (bit % 8))};
  const uint32_t st = DDPReadBitmapBlks(ctx, place->blk, 1, blk, nullptr);
  if (st != KAB_OK) Log("%s: Error: Failed to read bitmap block %lu\n", ctx->uuidText, place->blk);
  return st;
}

}  // namespace

bool Locate(uint64_t areaOffset, uint64_t start, uint64_t index, uint64_t* loc) {
  constexpr uint64_t kLargest = static_cast<uint64_t>(INT64_MAX);
  const uint64_t blk = start + index;
  *loc = areaOffset + (blk << kBlockShift);
  return blk >= start && areaOffset <= kLargest && blk <= (kLargest - areaOffset) >> kBlockShift;
}

uint32_t ReadAt(KABDiskCtx* ctx, uint64_t areaOffset, uint64_t start, uint64_t index, uint32_t count, void* buf,
                uint64_t* locOut) {
  uint64_t loc = 0;
  const bool exists = Locate(areaOffset, start, index, &loc);
  if (locOut != nullptr) *locOut = loc;
  return exists ? KABRead(ctx, buf, Length(count), static_cast<int64_t>(loc)) : uint32_t{KAB_IO_ERROR};
}

uint32_t WriteAt(KABDiskCtx* ctx, uint64_t areaOffset, uint64_t start, uint64_t index, uint32_t count,
                 const void* buf) {
  uint64_t loc = 0;
  if (!Locate(areaOffset, start, index, &loc)) return KAB_IO_ERROR;
  return KABWrite(ctx, buf, Length(count), static_cast<int64_t>(loc));
}

uint64_t RelativeNumber(const SuperBlk& sb, uint64_t pbn) {
  const uint64_t n = pbn & kBlkMask;
  switch (static_cast<uint32_t>(pbn >> kTypeShift) & 0xF) {
    case DDP_BLK_TXN_SUPER:
      return n - sb.txnSBStart;
    case DDP_BLK_BITMAP:
      return n - sb.bmapStart;
    case DDP_BLK_HASH_MAP:
      return n - sb.hmapStart;
    case DDP_BLK_XMAP:
      return n < sb.dataStart ? n - sb.xmapStart : n - sb.dataStart;
    case DDP_BLK_DATA:
      return n - sb.dataStart;
    case DDP_BLK_META_BMAP_HMAP:
      return n - sb.metaBmapHmapStart;
    case DDP_BLK_META_BMAP_BMAP:
      return n - sb.metaBmapBmapStart;
    case DDP_BLK_META_BMAP_XMAP:
      return n - sb.metaBmapXmapStart;
    default:
      return n;
  }
}

}  // namespace kab::ddp

using kab::ddp::SuperBlk;
using kab::ddp::SuperBlkOf;

uint32_t DDPReadTxnSBlk(KABDiskCtx* ctx, void* buf, uint64_t* locOut) {
  return kab::ddp::Read(ctx, &SuperBlk::txnSBStart, 0, 1, buf, locOut);
}

uint32_t CompressionReadTxnBlk(KABDiskCtx* ctx, void* buf, uint64_t* locOut) {
  *locOut = kab::ddp::kCompressionTxnOffset;
  return KABRead(ctx, buf, kab::ddp::kBlockSize, kab::ddp::kCompressionTxnOffset);
}

uint32_t DDPReadHashMapBlks(KABDiskCtx* ctx, uint64_t index, uint32_t count, void* buf, uint64_t* locOut) {
  return kab::ddp::Read(ctx, &SuperBlk::hmapStart, index, count, buf, locOut);
}

uint32_t DDPWriteHashMapBlks(KABDiskCtx* ctx, uint64_t index, uint32_t count, const void* buf) {
  return kab::ddp::Write(ctx, &SuperBlk::hmapStart, index, count, buf);
}

uint32_t DDPReadBitmapBlks(KABDiskCtx* ctx, uint64_t index, uint32_t count, void* buf, uint64_t* locOut) {
  return kab::ddp::Read(ctx, &SuperBlk::bmapStart, index, count, buf, locOut);
}

uint32_t DDPWriteBitmapBlks(KABDiskCtx* ctx, uint64_t index, uint32_t count, const void* buf) {
  return kab::ddp::Write(ctx, &SuperBlk::bmapStart, index, count, buf);
}

uint32_t DDPReadMapBitmapBlks(KABDiskCtx* ctx, uint64_t index, uint32_t count, uint32_t type, void* buf) {
  const auto start = kab::ddp::MapBitmapStart(type);
  if (start == nullptr) return KAB_INVALID_ARGUMENT;
  return kab::ddp::Read(ctx, start, index, count, buf, nullptr);
}

uint32_t DDPReadXmap(KABDiskCtx* ctx, uint64_t start, uint64_t relIndex, uint64_t /*index*/, uint32_t count, void* buf,
                     uint64_t* locOut) {
  return kab::ddp::ReadAt(ctx, ctx->dedupCtx.superBlkLoc, start, relIndex, count, buf, locOut);
}

uint32_t DDPReadXMapBlks(KABDiskCtx* ctx, uint64_t index, uint32_t count, void* buf, uint64_t* locOut) {
  const SuperBlk* sb = SuperBlkOf(ctx);
  if (sb == nullptr) return KAB_NOT_SUPPORTED;
  const uint64_t xmapSize = sb->xmapSize;
  const bool expansion = index >= xmapSize;
  const uint64_t start = expansion ? sb->dataStart : sb->xmapStart;
  // The map's size against its start, not against the index, on purpose.
  if (xmapSize > start && index + count > xmapSize) return KAB_INVALID_ARGUMENT;
  return DDPReadXmap(ctx, start, expansion ? index - xmapSize : index, index, count, buf, locOut);
}

uint32_t DDPWriteXMapBlks(KABDiskCtx* ctx, uint64_t index, uint32_t count, const void* buf) {
  return kab::ddp::Write(ctx, &SuperBlk::xmapStart, index, count, buf);
}

uint32_t DDPReadSecXMapBlks(KABDiskCtx* ctx, uint64_t index, uint32_t count, void* buf, uint64_t* locOut) {
  const SuperBlk* sb = SuperBlkOf(ctx);
  if (sb == nullptr) return KAB_NOT_SUPPORTED;
  const uint64_t xmapSize = sb->xmapSize;
  if (index >= xmapSize) {
    return DDPReadXmap(ctx, sb->dataStart + sb->expansion1Size / 2, index - xmapSize, index, count, buf, locOut);
  }
  if (index + count > xmapSize) return KAB_INVALID_ARGUMENT;
  return DDPReadXmap(ctx, sb->hmapStart + sb->hmapSize + sb->xmapStart, index, index, count, buf, locOut);
}

uint32_t DDPGetSecMetadataBlkOffset(KABDiskCtx* ctx, uint32_t /*copy*/, uint64_t index, uint32_t /*count*/,
                                    uint32_t type, uint64_t* locOut) {
  const SuperBlk* sb = SuperBlkOf(ctx);
  if (sb == nullptr) return KAB_NOT_SUPPORTED;
  uint64_t start = 0;
  switch (type) {
    case DDP_BLK_TXN_SUPER:
      start = sb->txnSBStart;
      break;
    case DDP_BLK_BITMAP:
      start = sb->bmapStart;
      break;
    case DDP_BLK_HASH_MAP:
      start = sb->hmapStart;
      break;
    default: {
      const auto mapBitmap = kab::ddp::MapBitmapStart(type);
      if (mapBitmap == nullptr) return KAB_INVALID_ARGUMENT;
      start = sb->*mapBitmap;
    }
  }
  const uint64_t secondary = sb->hmapStart + sb->hmapSize;
  return kab::ddp::Locate(kab::ddp::kAreaOffset, secondary + start, index, locOut) ? KAB_OK : KAB_IO_ERROR;
}

uint32_t DDPReadMetadataBlks(KABDiskCtx* ctx, uint32_t copy, uint64_t index, uint32_t count, uint32_t type, void* buf,
                             uint64_t* locOut) {
  uint64_t loc = 0;
  const uint32_t st = DDPGetSecMetadataBlkOffset(ctx, copy, index, count, type, &loc);
  if (st != KAB_OK) return st;
  if (locOut != nullptr) *locOut = loc;
  return KABRead(ctx, buf, kab::ddp::Length(count), static_cast<int64_t>(loc));
}

uint32_t DDPReadSecBitmapBlks(KABDiskCtx* ctx, uint64_t index, uint32_t count, void* buf, uint64_t* locOut) {
  return DDPReadMetadataBlks(ctx, 1, index, count, DDP_BLK_BITMAP, buf, locOut);
}

uint32_t DDPReadSecMapBitmapBlks(KABDiskCtx* ctx, uint64_t index, uint32_t count, uint32_t type, void* buf) {
  return DDPReadMetadataBlks(ctx, 1, index, count, type, buf, nullptr);
}

uint32_t DDPIsPBNInUse(KABDiskCtx* ctx, uint64_t pbn, uint8_t* inUseOut) {
  kab::ddp::BitPlace place;
  kab::ddp::BitmapBlk blk;
  const uint32_t st = kab::ddp::FindBit(ctx, pbn, &place, &blk);
  if (st == KAB_OK) *inUseOut = (blk.bits[place.byte] & place.mask) != 0 ? 1 : 0;
  return st;
}

uint32_t DDPMarkPBNInBitmap(KABDiskCtx* ctx, uint64_t pbn, uint8_t set) {
  kab::ddp::BitPlace place;
  kab::ddp::BitmapBlk blk;
  uint32_t st = kab::ddp::FindBit(ctx, pbn, &place, &blk);
  if (st != KAB_OK) return st;
  uint8_t& byte = blk.bits[place.byte];
  if (((byte & place.mask) != 0) == (set != 0)) return KAB_OK;
  byte ^= place.mask;
  blk.hdr.checksum = kab::ddp::BlkChecksum(&blk);
  st = DDPWriteBitmapBlks(ctx, place.blk, 1, &blk);
  if (st != KAB_OK) kab::Log("%s: Error: Failed to write bitmap block %lu\n", ctx->uuidText, place.blk);
  return st;
}
