// What a map block must keep before anything follows it.

#include "orlo/map_block.h"

#include "core/frame/log.h"

namespace kab::orlo {

uint32_t RefuseMapBlock(const KABDiskCtx* disk, uint64_t blockNo, const char* fault) {
  Log("%s: MetaError: Invalid map block %lu: %s\n", disk->uuidText, blockNo, fault);
  return KAB_BLOCK_INVALID;
}

uint32_t CheckMapBlock(const KABDiskCtx* disk, uint64_t blockNo, const uint8_t* block, uint32_t version, bool isRoot) {
  const MapNode node(block, version);
  const uint32_t count = node.StatedCount();
  const uint32_t capacity = node.Capacity();
  if (count > capacity) {
    Log("%s: MetaError: Invalid map block %lu: %u keys where %u fit\n", disk->uuidText, blockNo, count, capacity);
    return KAB_BLOCK_INVALID;
  }
  if (!node.IsLeaf()) return KAB_OK;
  if (count == 0 && !isRoot) return RefuseMapBlock(disk, blockNo, "a leaf without entries");
  for (uint32_t i = 0; i < count; ++i) {
    const Record record = node.RecordAt(i);
    const uint32_t key = node.Key(i);
    if (uint64_t{key} + record.count > 1ULL << 32U) {
      Log("%s: MetaError: Invalid map block %lu: %u blocks at logical block %u leave the logical space\n",
          disk->uuidText, blockNo, record.count, key);
      return KAB_BLOCK_INVALID;
    }
    if (record.physical != kNoBlock && record.physical + record.count > kBlockMask + 1) {
      Log("%s: MetaError: Invalid map block %lu: %u blocks at physical block %lu leave the physical space\n",
          disk->uuidText, blockNo, record.count, record.physical);
      return KAB_BLOCK_INVALID;
    }
  }
  return KAB_OK;
}

uint32_t LoadMapBlock(KABDiskCtx* disk, uint64_t blockNo, uint32_t version, bool isRoot, Owned<uint8_t[]>& block) {
  block = AllocBytes(ORLO_MAP_BLOCK_SIZE);
  if (!block) return KAB_OUT_OF_MEMORY;
  const uint32_t st = OrloReadVBTMapBlock(disk, blockNo, block.get());
  return st != KAB_OK ? st : CheckMapBlock(disk, MaskBlock(blockNo), block.get(), version, isRoot);
}

}  // namespace kab::orlo

uint32_t OrloReadVBTMapBlock(KABDiskCtx* disk, uint64_t blockNo, void* buf) {
  return OrloReadData(disk, buf, ORLO_MAP_BLOCK_SIZE, kab::orlo::BlockOffset(blockNo));
}
