// The bitmap of a component's allocated blocks.

#include <algorithm>
#include <atomic>

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "kab/orlo.h"
#include "orlo/block_set.h"
#include "orlo/map_block.h"

namespace kab::orlo {
namespace {

// Interior nodes visited in the life of the process; never reset, so that every one after the tenth prints its line.
std::atomic<uint32_t> interiorNodesVisited;
constexpr uint32_t kQuietInteriorNodes = 10;

// Runs of a sound tree do not overlap, so together they cover the bitmap once at most.
constexpr uint64_t kMostBits = 16ULL * ORLO_LBA_MAP_BITS;

void SetBits(uint32_t* words, uint64_t first, uint64_t end) {
  for (uint64_t bit = first; bit < end;) {
    const uint64_t word = bit / 32;
    const uint64_t stop = std::min(end, (word + 1) * 32);
    const auto ones = static_cast<uint32_t>((1ULL << (stop - bit)) - 1);
    std::atomic_ref<uint32_t>(words[word]).fetch_or(ones << (bit % 32), std::memory_order_relaxed);
    bit = stop;
  }
}

class BitmapWalk {
 public:
  BitmapWalk(KABDiskCtx* disk, uint32_t* words) : disk_(disk), version_(FormatVersion(disk)), words_(words) {}

  // As deep as ORLO_MAX_MAP_DEPTH; the nodes are on the heap.
  uint32_t Visit(uint64_t blockNo) {
    if (depth_ == ORLO_MAX_MAP_DEPTH) return RefuseMapBlock(disk_, blockNo, kTooDeep);
    if (std::find(path_, path_ + depth_, blockNo) != path_ + depth_) {
      return RefuseMapBlock(disk_, blockNo, kOwnAncestor);
    }
    if (seen_.Contains(blockNo)) return KAB_OK;
    Owned<uint8_t[]> block;
    const uint32_t st = LoadMapBlock(disk_, blockNo, version_, depth_ == 0, block);
    if (st != KAB_OK) return st;
    if (!seen_.Insert(blockNo)) return KAB_OUT_OF_MEMORY;
    const MapNode node(block.get(), version_);
    return node.IsLeaf() ? SetRuns(blockNo, node) : VisitChildren(blockNo, node);
  }

 private:
  uint32_t VisitChildren(uint64_t blockNo, const MapNode& node) {
    if (interiorNodesVisited.fetch_add(1, std::memory_order_relaxed) >= kQuietInteriorNodes) {
      Log("%s: Orlo Component Btree crossed max depth\n", disk_->uuidText);
    }
    path_[depth_++] = blockNo;
    for (uint64_t i = 0; i <= node.Count(); ++i) static_cast<void>(Visit(node.Child(i)));
    --depth_;
    return KAB_OK;
  }

  uint32_t SetRuns(uint64_t blockNo, const MapNode& leaf) {
    for (uint32_t i = 0; i < leaf.Count(); ++i) {
      const Record record = leaf.RecordAt(i);
      const uint32_t key = leaf.Key(i);
      if (key < ORLO_SUPERBLOCK_BLOCKS || record.type != kAllocatedType) continue;
      const uint64_t first = key - uint64_t{ORLO_SUPERBLOCK_BLOCKS};
      const uint64_t end = std::min(first + record.count, uint64_t{ORLO_LBA_MAP_BITS});
      if (first >= end) continue;
      bitsSet_ += end - first;
      if (bitsSet_ > kMostBits) return RefuseMapBlock(disk_, blockNo, kOverlap);
      SetBits(words_, first, end);
    }
    return KAB_OK;
  }

  KABDiskCtx* disk_;
  uint32_t version_;
  uint32_t* words_;
  BlockSet seen_;
  uint64_t path_[ORLO_MAX_MAP_DEPTH] = {};
  uint32_t depth_ = 0;
  uint64_t bitsSet_ = 0;
};

}  // namespace
}  // namespace kab::orlo

uint32_t OrloReadComponentBtree(KABDiskCtx* disk, uint64_t block, uint32_t* bits) {
  return kab::orlo::BitmapWalk(disk, bits).Visit(kab::orlo::MaskBlock(block));
}
