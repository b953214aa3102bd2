// The SSD extents of a log entry: packed on disk, unpacked in memory.

#include "ssdlog/alloc_map.h"

#include "core/frame/log.h"
#include "kab/core.h"
#include "kab/dump.h"
#include "kab/ssdlog.h"
#include "ssdlog/log_block.h"

namespace kab::ssdlog {

uint32_t MapCount(const void* map) { return *static_cast<const le16*>(map); }

std::span<Extent> MapExtents(void* map, uint32_t count) {
  return {reinterpret_cast<Extent*>(static_cast<uint8_t*>(map) + sizeof(le16)), count};
}

namespace {

std::span<const PackedExtent> PackedExtents(const void* map, uint32_t count) {
  return {reinterpret_cast<const PackedExtent*>(static_cast<const uint8_t*>(map) + sizeof(le16)), count};
}

// Kept as it is: it shifts sectors as if they were bytes, so that only addresses near the reserved ones pass.
bool InReservedRange(uint64_t address, uint64_t length, uint64_t start, uint64_t aboveBlk) {
  return ((address - 1 + length) >> 12U) - start < kReservedThird && (address >> 12U) - start >= aboveBlk;
}

bool CountAllowed(const KABDiskCtx* ctx, uint32_t count) {
  if (count <= kMaxMapElements) return true;
  Log("%s: MetaError: Invalid num elements(%u) in alloc map\n", ctx->uuidText, count);
  return false;
}

UnpackedMap Unpack(KABDiskCtx* ctx, const void* packed) {
  const uint32_t count = MapCount(packed);
  UnpackedMap map = AllocBytes(MapSize(count));
  if (map == nullptr) return map;
  *reinterpret_cast<le16*>(map.get()) = static_cast<uint16_t>(count);
  KABUnpackAllocMap(ctx, packed, map.get());
  return map;
}

// The packed map at the end of an entry, or null when it carries none.
uint32_t FindPackedMap(const KABDiskCtx* ctx, Bytes entry, const void** packed) {
  *packed = nullptr;
  const EntryPrefix& prefix = *At<EntryPrefix>(entry, 0);
  const uint32_t payload = prefix.payloadLength;
  const uint32_t prefixLength = PrefixLength(prefix);
  if (prefix.entryLength - payload == prefixLength) return KAB_OK;
  const uint64_t mapAt = uint64_t{prefixLength} + payload;
  const le16* stored = At<le16>(entry, mapAt);
  const uint32_t count = stored != nullptr ? uint32_t{*stored} : 0;
  if (!CountAllowed(ctx, count)) return KAB_GENERAL_FAILURE;
  if (stored == nullptr || !ArrayAt<PackedExtent>(entry, mapAt + sizeof(le16), count)) {
    Log("%s: MetaError: Alloc map of %u elements leaves its log entry\n", ctx->uuidText, count);
    return KAB_BLOCK_INVALID;
  }
  *packed = stored;
  return KAB_OK;
}

}  // namespace

uint32_t UnpackEntryMap(KABDiskCtx* ctx, Bytes entry, UnpackedMap* map) {
  map->reset();
  const void* packed = nullptr;
  const uint32_t st = FindPackedMap(ctx, entry, &packed);
  if (st != KAB_OK || packed == nullptr) return st;
  *map = Unpack(ctx, packed);
  return *map != nullptr ? KAB_OK : KAB_OUT_OF_MEMORY;
}

}  // namespace kab::ssdlog

using namespace kab;
using namespace kab::ssdlog;

void KABUnpackAllocMap(KABDiskCtx* ctx, const void* packed, void* unpacked) {
  const uint32_t count = MapCount(packed);
  const uint64_t start = WriteBufferStart(ctx);
  const auto from = PackedExtents(packed, count);
  const auto to = MapExtents(unpacked, count);
  for (uint32_t i = 0; i < count; ++i) {
    uint64_t address = from[i].Address();
    if (address == kPackedReservedFirst) {
      address = (start + kReservedFirst) * kSectorsPerBlock;
    } else if (address == kPackedReservedSecond) {
      address = (start + kReservedSecond) * kSectorsPerBlock;
    }
    to[i].address = address;
    to[i].length = from[i].Length();
  }
}

uint32_t KABPackAllocMap(KABDiskCtx* ctx, void* unpacked, void* packed) {
  const uint32_t count = MapCount(unpacked);
  const uint64_t start = WriteBufferStart(ctx);
  const auto from = MapExtents(unpacked, count);
  auto* to = reinterpret_cast<PackedExtent*>(static_cast<uint8_t*>(packed) + sizeof(le16));
  for (uint32_t i = 0; i < count; ++i) {
    uint64_t address = from[i].address;
    const uint16_t length = from[i].length;
    if (address == kPackedReservedSecond && InReservedRange(address, length, start, kReservedSecond)) {
      address = kPackedReservedSecond;
    } else if (InReservedRange(address, length, start, kReservedFirst)) {
      address = kPackedReservedFirst;
      from[i].address = kPackedReservedFirst;  // the caller's map changes along, on purpose
    }
    to[i].high = static_cast<uint8_t>((address >> 40U & 7U) << 5U | (uint32_t{length} >> 8U & 31U));
    to[i].lengthLow = static_cast<uint8_t>(length);
    to[i].addressMiddle = static_cast<uint8_t>(address >> 32U);
    to[i].addressLow = static_cast<uint32_t>(address);
  }
  return count;
}

uint32_t SSDLOG_UnpackAllocMapFromEntry(KABDiskCtx* ctx, const void* entry, void** outMap) {
  *outMap = nullptr;
  const uint32_t length = static_cast<const EntryPrefix*>(entry)->entryLength;
  if (length < sizeof(EntryPrefix) || length > kBlockSize) {
    Log("%s: MetaError: Log entry of %u bytes\n", ctx->uuidText, length);
    return KAB_BLOCK_INVALID;
  }
  UnpackedMap map;
  const uint32_t st = UnpackEntryMap(ctx, Bytes(static_cast<const uint8_t*>(entry), length), &map);
  *outMap = map.release();
  return st;
}

uint32_t SSDLOGDumpPackedAllocMap(KABDiskCtx* ctx, KABDumpCtx* dumpFile, const void* packed) {
  const uint32_t count = MapCount(packed);
  if (!CountAllowed(ctx, count)) return KAB_GENERAL_FAILURE;
  const UnpackedMap map = Unpack(ctx, packed);
  if (map == nullptr) return KAB_OUT_OF_MEMORY;
  uint32_t st = KAB_OK;
  for (const Extent& extent : MapExtents(map.get(), count)) {
    const uint64_t address = extent.address;
    const uint32_t length = extent.length * uint32_t{kSectorSize};
    // An address that wraps must not stand for the place it wraps to.
    const bool onDevice = address <= (uint64_t{INT64_MAX} - ctx->dataOffset - length) / kSectorSize;
    st = onDevice ? KABAddChunkToDump(dumpFile, ctx, length, ctx->dataOffset + address * kSectorSize)
                  : uint32_t{KAB_GENERAL_FAILURE};
    if (st != KAB_OK) Log("Error: Failed to dump allocMap entry, continuing.\n");
  }
  return st;
}

uint32_t KABSSDLOGCheckAllocMap(KABDiskCtx* ctx, const void* entry) {
  void* unpacked = nullptr;
  const uint32_t st = SSDLOG_UnpackAllocMapFromEntry(ctx, entry, &unpacked);
  const UnpackedMap map(static_cast<uint8_t*>(unpacked));
  if (st != KAB_OK) return 0;
  if (map == nullptr) return 1;
  const uint32_t count = MapCount(map.get());
  const CheckpointRecord* record = CurrentRecord(ctx);
  if (count == 0 || count > kMaxMapElements || record == nullptr) return 0;
  for (const Extent& extent : MapExtents(map.get(), count)) {
    const uint64_t blk = (extent.address >> 3U) & kBlkMask;
    if (blk == ctx->reservedAddrs[0] || blk == ctx->reservedAddrs[1] || blk == ctx->reservedAddrs[2]) continue;
    const uint64_t lastBlk = ((extent.address + extent.length - 1) >> 3U) & kBlkMask;
    if (!InWriteBuffer(*record, blk) || !InWriteBuffer(*record, lastBlk)) return 0;
  }
  return 1;
}
