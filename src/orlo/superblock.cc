// A component's superblock: the first 4 MiB of its vdisk, found at the left end of the map.

#include <algorithm>
#include <cstring>

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "kab/orlo.h"
#include "orlo/map_block.h"

namespace kab::orlo {
namespace {

const char* DirectionText(uint32_t direction) { return direction == 1 ? "read" : "write"; }

/// As OrloReadWriteSuperBlkBuffer; `blockNo` is the number of the block in `mapBlock`, for messages.
uint32_t TransferLeftEnd(KABDiskCtx* disk, void* buf, uint8_t* mapBlock, uint64_t blockNo, uint32_t maxBlocks,
                         uint32_t maxBytes, uint32_t direction) {
  const uint32_t version = FormatVersion(disk);
  uint64_t path[ORLO_MAX_MAP_DEPTH] = {};
  uint32_t depth = 0;
  for (;; ++depth) {
    if (depth == ORLO_MAX_MAP_DEPTH) return RefuseMapBlock(disk, blockNo, kTooDeep);
    if (std::find(path, path + depth, blockNo) != path + depth) return RefuseMapBlock(disk, blockNo, kOwnAncestor);
    path[depth] = blockNo;
    if (depth != 0) {
      const uint32_t st = OrloReadVBTMapBlock(disk, blockNo, mapBlock);
      if (st != KAB_OK) {
        Log("%s: Error: VBTMapBlock read failed at offset %lu\n", disk->uuidText, blockNo);
        return st;
      }
    }
    const uint32_t st = CheckMapBlock(disk, blockNo, mapBlock, version, depth == 0);
    if (st != KAB_OK) return st;
    const MapNode node(mapBlock, version);
    if (node.IsLeaf()) break;
    blockNo = node.Child(0);
  }

  const MapNode leaf(mapBlock, version);
  for (uint32_t i = 0; i < leaf.Count() && leaf.Key(i) < maxBlocks; ++i) {
    const Record record = leaf.RecordAt(i);
    const uint32_t st = OrloReadWriteVBTLeafRecCommon(disk, buf, maxBytes, direction, record.type, record.count,
                                                      record.physical, leaf.Key(i));
    if (st != KAB_OK) {
      Log("%s: Error: ZOLT Superblock data %s failed\n", disk->uuidText, DirectionText(direction));
      return st;
    }
  }
  return KAB_OK;
}

}  // namespace
}  // namespace kab::orlo

using kab::Log;

uint32_t OrloReadWriteVBTLeafRecCommon(KABDiskCtx* disk, void* buf, uint32_t maxBytes, uint32_t direction,
                                       uint32_t type, uint32_t count, uint64_t physical, uint64_t logical) {
  if (type != kab::orlo::kAllocatedType) return KAB_OK;
  // The buffer ends at maxBytes, wherever in it the run begins.
  if (logical >= (maxBytes + uint64_t{ORLO_MAP_BLOCK_SIZE} - 1) / ORLO_MAP_BLOCK_SIZE) return KAB_OK;
  const uint64_t at = logical * ORLO_MAP_BLOCK_SIZE;
  const auto length = static_cast<uint32_t>(std::min(uint64_t{count} * ORLO_MAP_BLOCK_SIZE, maxBytes - at));
  uint8_t* place = static_cast<uint8_t*>(buf) + at;
  const uint64_t offset = kab::orlo::BlockOffset(physical);
  if (direction == 1) return OrloReadData(disk, place, length, offset);
  return direction == 0 ? OrloWriteData(disk, place, length, offset) : uint32_t{KAB_OK};
}

uint32_t OrloReadWriteVBTLeafRec(KABDiskCtx* disk, void* buf, uint32_t maxBytes, uint32_t direction, const void* record,
                                 uint32_t logical) {
  const kab::orlo::Record run = kab::orlo::DecodeRecordV6(record);
  return OrloReadWriteVBTLeafRecCommon(disk, buf, maxBytes, direction, run.type, run.count, run.physical, logical);
}

uint32_t OrloReadWriteVBTLeafRec64(KABDiskCtx* disk, void* buf, uint32_t maxBytes, uint32_t direction,
                                   const void* record, uint32_t logical) {
  const kab::orlo::Record run = kab::orlo::DecodeRecord64(record);
  return OrloReadWriteVBTLeafRecCommon(disk, buf, maxBytes, direction, run.type, run.count, run.physical, logical);
}

uint32_t OrloReadWriteSuperBlkBuffer(KABDiskCtx* disk, void* buf, void* mapBlock, uint32_t maxBlocks, uint32_t maxBytes,
                                     uint32_t direction) {
  return kab::orlo::TransferLeftEnd(disk, buf, static_cast<uint8_t*>(mapBlock), kab::orlo::kNoBlock, maxBlocks,
                                    maxBytes, direction);
}

uint32_t OrloReadWriteComponentSuperBlock(KABDiskCtx* disk, uint64_t mapBlockNo, void* buf, uint32_t direction) {
  const auto block = kab::AllocBytes(ORLO_MAP_BLOCK_SIZE);
  if (!block) {
    Log("%s: Error: VBTMapBlock Allocation failed\n", disk->uuidText);
    return KAB_OUT_OF_MEMORY;
  }
  const uint32_t st = OrloReadVBTMapBlock(disk, mapBlockNo, block.get());
  if (st != KAB_OK) {
    Log("%s: Error: VBTMapBlock read failed at offet %lu\n", disk->uuidText, mapBlockNo);
    return st;
  }
  return kab::orlo::TransferLeftEnd(disk, buf, block.get(), kab::orlo::MaskBlock(mapBlockNo), ORLO_SUPERBLOCK_BLOCKS,
                                    ORLO_SUPERBLOCK_SIZE, direction);
}

uint32_t OrloReadWriteComponentSuperBlockUUID(KABDiskCtx* disk, const void* desc, const char* uuidText, void* buf,
                                              uint32_t direction) {
  const uint32_t version = kab::orlo::FormatVersion(disk);
  uint8_t entry[ORLO_VDISK_ENTRY_SIZE] = {};
  uint32_t st =
      version == 6 ? OrloReadVdisk(disk, desc, uuidText, entry) : OrloReadVdiskV4Plus(disk, desc, uuidText, entry);
  if (st != KAB_OK) {
    Log("%s: Error: Orlo vdisk Read failed\n", disk->uuidText);
    return st;
  }
  const kab::orlo::Vdisk vdisk = kab::orlo::DecodeVdisk(entry, version);
  if (!vdisk.superBlockPresent) return KAB_NO_SUPERBLOCK;
  // The superblock's magic: what the map does not place must not look like a superblock of an earlier read.
  if (direction == 1) std::memset(buf, 0, sizeof(uint64_t));
  st = OrloReadWriteComponentSuperBlock(disk, vdisk.mapBlock, buf, direction);
  if (st != KAB_OK) {
    Log("%s: Error: Orlo ZOLT Comp Superblock %s failed for vdiskID %u\n", disk->uuidText,
        kab::orlo::DirectionText(direction), vdisk.id);
  }
  return st;
}
