// The path from the root of a map tree to a record, and the runs that lie along it.

#include <algorithm>

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "kab/orlo.h"
#include "orlo/map_block.h"

namespace kab::orlo {
namespace {

MapNode NodeOf(const OrloBTreeCursor* cursor, const OrloBTreeFrame* frame) {
  return MapNode(frame->block, cursor->version);
}

// Frames do not keep their block's number: it is the child that the frame below points at.
uint64_t BlockOf(const OrloBTreeCursor* cursor, const OrloBTreeFrame* frame) {
  if (frame->below == nullptr) return MaskBlock(cursor->root);
  return NodeOf(cursor, frame->below).Child(frame->below->index);
}

bool IsOnPath(const OrloBTreeCursor* cursor, uint64_t blockNo) {
  for (const OrloBTreeFrame* frame = cursor->top; frame != nullptr; frame = frame->below) {
    if (BlockOf(cursor, frame) == blockNo) return true;
  }
  return false;
}

/// Reads the next block of a path, the root for an empty stack; pushes nothing.
uint32_t LoadNext(OrloBTreeCursor* cursor, uint64_t blockNo, Owned<uint8_t[]>& block) {
  if (cursor->depth >= ORLO_MAX_MAP_DEPTH) return RefuseMapBlock(cursor->disk, blockNo, kTooDeep);
  if (IsOnPath(cursor, blockNo)) return RefuseMapBlock(cursor->disk, blockNo, kOwnAncestor);
  return LoadMapBlock(cursor->disk, blockNo, cursor->version, cursor->top == nullptr, block);
}

uint32_t PushOwned(OrloBTreeCursor* cursor, Owned<uint8_t[]>& block, uint64_t index) {
  const uint32_t st = OrloBTree_Push(cursor, block.get(), index);
  if (st == KAB_OK) static_cast<void>(block.release());
  return st;
}

/// Starts a walk at the root; a tree without records leaves the stack empty.
uint32_t PushRoot(OrloBTreeCursor* cursor, uint64_t index) {
  if (cursor->root == kNoBlock) return KAB_OK;
  Owned<uint8_t[]> block;
  const uint32_t st = LoadNext(cursor, MaskBlock(cursor->root), block);
  if (st != KAB_OK) return st;
  return MapNode(block.get(), cursor->version).Positions() == 0 ? uint32_t{KAB_OK} : PushOwned(cursor, block, index);
}

/// The runs of a lookup until they are handed out.
class ExtentList {
 public:
  ExtentList() = default;
  ~ExtentList() {
    while (first_ != nullptr) {
      OrloExtent* next = first_->next;
      KABFree(&first_);
      first_ = next;
    }
  }
  ExtentList(const ExtentList&) = delete;
  ExtentList& operator=(const ExtentList&) = delete;

  bool Append(const Record& record, uint64_t physical, uint64_t logical, uint64_t blocks) {
    constexpr uint64_t kSectorsPerBlock = 8;
    auto extent = AllocRecord<OrloExtent>();
    if (!extent) return false;
    extent->type = record.type;
    extent->physicalSectors = physical == kNoBlock ? kNoBlock : physical * kSectorsPerBlock;
    extent->logicalSectors = logical * kSectorsPerBlock;
    extent->sectorCount = blocks * kSectorsPerBlock;
    OrloExtent*& link = last_ == nullptr ? first_ : last_->next;
    last_ = link = extent.release();
    return true;
  }
  OrloExtent* Release() {
    OrloExtent* first = first_;
    first_ = last_ = nullptr;
    return first;
  }

 private:
  OrloExtent* first_ = nullptr;
  OrloExtent* last_ = nullptr;
};

uint32_t Collect(OrloBTreeCursor* cursor, uint64_t startLba, uint64_t endLba, uint64_t capacity, uint32_t mode,
                 ExtentList& runs) {
  uint32_t st = OrloMapLookupTraverse(cursor, startLba);
  uint64_t lowestNext = 0;
  while (st == KAB_OK && cursor->top != nullptr) {
    const OrloBTreeFrame* top = cursor->top;
    const uint64_t key = NodeOf(cursor, top).Key(top->index);
    if (key >= endLba) break;
    // Shared blocks could make the walk as long as the number of paths; rising keys bound it by the blocks on disk.
    if (key < lowestNext) return RefuseMapBlock(cursor->disk, BlockOf(cursor, top), kNotRising);
    lowestNext = key + 1;

    const Record record = NodeOf(cursor, top).RecordAt(top->index);
    const bool hole = record.physical == kNoBlock;
    const bool kept = mode != 2 || !hole || record.type == 1 || record.type == 2;
    const uint64_t from = std::max(key, startLba);
    const uint64_t to = std::min(key + record.count, endLba);
    if (kept && to > from) {
      const uint64_t blocks = std::min(to - from, capacity);
      const uint64_t physical = hole ? kNoBlock : record.physical + (from - key);
      if (!runs.Append(record, physical, from, blocks)) return KAB_OUT_OF_MEMORY;
      capacity -= blocks;
      if (capacity == 0) break;
    }
    st = OrloBTree_StepNext(cursor);
  }
  return st;
}

}  // namespace
}  // namespace kab::orlo

using kab::Owned;
using kab::orlo::MapNode;
using kab::orlo::NodeOf;

uint32_t OrloBTree_Push(OrloBTreeCursor* cursor, uint8_t* block, uint64_t index) {
  auto frame = kab::AllocRecord<OrloBTreeFrame>();
  if (!frame) return KAB_OUT_OF_MEMORY;
  const uint64_t positions = MapNode(block, cursor->version).Positions();
  frame->below = cursor->top;
  frame->block = block;
  frame->index = index;
  if (index == UINT64_MAX) frame->index = positions != 0 ? positions - 1 : 0;
  cursor->top = frame.release();
  ++cursor->depth;
  return KAB_OK;
}

void OrloBTree_Pop(OrloBTreeCursor* cursor) {
  OrloBTreeFrame* frame = cursor->top;
  if (frame == nullptr) return;
  cursor->top = frame->below;
  --cursor->depth;
  KABFree(&frame->block);
  KABFree(&frame);
}

void OrloBTree_Clear(OrloBTreeCursor* cursor) {
  while (cursor->top != nullptr) OrloBTree_Pop(cursor);
}

uint32_t OrloBTree_StepDown(OrloBTreeCursor* cursor, uint32_t first) {
  while (cursor->top != nullptr) {
    const MapNode node = NodeOf(cursor, cursor->top);
    if (node.IsLeaf()) return KAB_OK;
    if (cursor->top->index >= node.Positions()) return KAB_INVALID_ARGUMENT;
    Owned<uint8_t[]> block;
    uint32_t st = kab::orlo::LoadNext(cursor, node.Child(cursor->top->index), block);
    if (st == KAB_OK) st = kab::orlo::PushOwned(cursor, block, first != 0 ? 0 : UINT64_MAX);
    if (st != KAB_OK) return st;
  }
  return KAB_OK;
}

uint32_t OrloBTree_StepNext(OrloBTreeCursor* cursor) {
  if (cursor->top == nullptr) {
    const uint32_t st = kab::orlo::PushRoot(cursor, 0);
    if (st != KAB_OK) return st;
  } else {
    for (; cursor->top != nullptr; OrloBTree_Pop(cursor)) {
      const uint64_t positions = NodeOf(cursor, cursor->top).Positions();
      if (cursor->top->index < positions && cursor->top->index + 1 < positions) {
        ++cursor->top->index;
        break;
      }
    }
  }
  return OrloBTree_StepDown(cursor, 1);
}

uint32_t OrloBTree_StepPrev(OrloBTreeCursor* cursor) {
  if (cursor->top == nullptr) {
    const uint32_t st = kab::orlo::PushRoot(cursor, UINT64_MAX);
    if (st != KAB_OK) return st;
  } else {
    for (; cursor->top != nullptr; OrloBTree_Pop(cursor)) {
      if (cursor->top->index > 0 && cursor->top->index <= NodeOf(cursor, cursor->top).Positions()) {
        --cursor->top->index;
        break;
      }
    }
  }
  return OrloBTree_StepDown(cursor, 0);
}

uint32_t OrloMapLookupTraverse(OrloBTreeCursor* cursor, uint64_t lba) {
  OrloBTree_Clear(cursor);
  if (cursor->root == kab::orlo::kNoBlock) return KAB_OK;
  bool leftmost = true;
  for (uint64_t blockNo = kab::orlo::MaskBlock(cursor->root);;) {
    Owned<uint8_t[]> block;
    uint32_t st = kab::orlo::LoadNext(cursor, blockNo, block);
    if (st != KAB_OK) return st;
    const MapNode node(block.get(), cursor->version);
    const uint32_t count = node.Count();
    const uint32_t lower = node.LowerBound(lba);
    if (node.IsLeaf()) {
      if (count == 0) return KAB_OK;
      const uint32_t position = lower < count ? lower : count - 1;
      const bool above = node.Key(position) > lba;
      st = kab::orlo::PushOwned(cursor, block, position);
      // Nothing precedes the first record of the tree: the cursor stays on it.
      return st == KAB_OK && above && !(lower == 0 && leftmost) ? OrloBTree_StepPrev(cursor) : st;
    }
    // A child begins with the key before it: a key equal to lba leads to the right-hand child.
    const uint32_t position = lower < count && node.Key(lower) == lba ? lower + 1 : lower;
    if (position != 0) leftmost = false;
    blockNo = node.Child(position);
    st = kab::orlo::PushOwned(cursor, block, position);
    if (st != KAB_OK) return st;
  }
}

uint32_t OrloMapLookup(OrloBTreeCursor* cursor, uint64_t startLba, uint64_t endLba, uint32_t capacity, OrloExtent** out,
                       uint32_t mode) {
  *out = nullptr;
  if (capacity == 0) return KAB_OK;
  kab::orlo::ExtentList runs;
  const uint32_t st = kab::orlo::Collect(cursor, startLba, endLba, capacity, mode, runs);
  OrloBTree_Clear(cursor);
  if (st == KAB_OK) *out = runs.Release();
  return st;
}
