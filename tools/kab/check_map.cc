#include "check_map.h"

#include <fmt/format.h>

#include <algorithm>

#include "kab/orlo.h"
#include "load.h"
#include "orlo_registry.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = ORLO_MAP_BLOCK_SIZE;
constexpr uint64_t kNone = ~uint64_t{0};
constexpr uint64_t kBlockMask = (uint64_t{1} << 45) - 1;
constexpr uint32_t kCountMask = (1U << 26) - 1;
constexpr uint64_t kLogicalEnd = uint64_t{1} << 32;

// A node: the number of keys, its top bit set in a leaf; keys; records of a leaf or children of an interior node.
constexpr size_t kKeyCountAt = 16;
constexpr size_t kKeysAt = 18;
struct Shape {
  size_t recordsAt;
  uint32_t recordSize;
  size_t childrenAt;
  uint32_t childSize;
};
constexpr Shape kShape6 = {1374, 8, 2054, 4};
constexpr Shape kShape = {1034, 12, 1374, 8};

uint64_t Widen(uint32_t number) { return number == ~uint32_t{0} ? kNone : number; }
uint64_t Masked(uint64_t number) { return number == kNone ? kNone : number & kBlockMask; }
uint64_t KeyAt(const uint8_t* node, uint32_t i) { return Load<uint32_t>(node + kKeysAt + 4 * i); }

}  // namespace

MapCheck::MapCheck(Check& check, KABDiskCtx* disk)
    : check_(check),
      disk_(disk),
      version6_(FormatVersion(*disk) == 6),
      blocks_(disk->usableSize / kBlock),
      taken_(check.quick || blocks_ / 8 > check.memory ? 0 : blocks_) {}

uint64_t MapCheck::ByteOffset(uint64_t block) const { return disk_->dataOffset + (block & kBlockMask) * kBlock; }

// What a node has room for: keys up to where the records begin, records and children up to the block's end.
uint32_t MapCheck::MaxRecords() const {
  const Shape& shape = version6_ ? kShape6 : kShape;
  return static_cast<uint32_t>(
      std::min((shape.recordsAt - kKeysAt) / 4, (kBlock - shape.recordsAt) / shape.recordSize));
}

uint32_t MapCheck::MaxKeys() const {
  const Shape& shape = version6_ ? kShape6 : kShape;
  return static_cast<uint32_t>(
      std::min((shape.childrenAt - kKeysAt) / 4, (kBlock - shape.childrenAt) / shape.childSize - 1));
}

void MapCheck::Reserve(uint64_t block, uint64_t count) {
  for (uint64_t i = block; i < blocks_ && i - block < count; ++i) taken_[i] = true;
}

void MapCheck::CheckTree(const Vdisk& vdisk) {
  vdisk_ = &vdisk;
  runEnd_ = 0;
  const uint64_t root = Masked(vdisk.mapBlock);
  if (root != kNone) CheckNode(root, {0, kLogicalEnd}, 0);
}

void MapCheck::Broken(uint64_t block, const char* what, uint64_t expected, uint64_t found) {
  check_.Damage("ORLO-MAP", *disk_, ByteOffset(block), fmt::format("component {}: a map block {}", vdisk_->uuid, what),
                fmt::format("at most {}", expected), std::to_string(found));
  check_.complete = false;
}

bool MapCheck::TakeNode(uint64_t block, uint32_t level) {
  if (level >= ORLO_MAX_MAP_DEPTH) {
    Broken(block, "lies too deep", ORLO_MAX_MAP_DEPTH, level + 1);
    return false;
  }
  if (block >= blocks_) {
    check_.Damage("ORLO-MAP-BOUNDS", *disk_, {}, fmt::format("component {}: a map block leaves the disk", vdisk_->uuid),
                  fmt::format("below block {}", blocks_), std::to_string(block));
    check_.complete = false;
    return false;
  }
  // A tree that returns to itself ends here, too.
  if (taken_[block]) {
    check_.Damage("ORLO-MAP-TWICE", *disk_, ByteOffset(block),
                  fmt::format("component {}: a map block is in use already", vdisk_->uuid));
    check_.complete = false;
    return false;
  }
  taken_[block] = true;
  return true;
}

void MapCheck::CheckNode(uint64_t block, const Bounds& bounds, uint32_t level) {
  StopIfInterrupted();
  if (!TakeNode(block, level)) return;
  std::vector<uint8_t> node(kBlock);
  LineTrap trap;
  if (OrloReadVBTMapBlock(disk_, block, node.data()) != KAB_OK) {
    check_.Damage("ORLO-MAP", *disk_, ByteOffset(block),
                  fmt::format("component {}: a map block cannot be read", vdisk_->uuid));
    check_.complete = false;
    return;
  }
  const auto head = Load<uint16_t>(node.data() + kKeyCountAt);
  const bool leaf = (head & 0x8000U) != 0;
  const uint32_t count = head & 0x7FFFU;
  const uint32_t most = leaf ? MaxRecords() : MaxKeys();
  if (count > most) {
    Broken(block, "has more keys than there is room for", most, count);
  } else if (leaf && count == 0 && level != 0) {
    check_.Damage("ORLO-MAP", *disk_, ByteOffset(block),
                  fmt::format("component {}: a leaf below the root is empty", vdisk_->uuid));
    check_.complete = false;
  } else if (!KeysRise(node.data(), block, count, bounds)) {
    check_.complete = false;  // where the rest belongs is anyone's guess
  } else if (leaf) {
    CheckLeaf(node.data(), block, count);
  } else {
    CheckChildren(node.data(), count, bounds, level);
  }
}

bool MapCheck::KeysRise(const uint8_t* node, uint64_t block, uint32_t count, const Bounds& bounds) {
  uint64_t least = bounds.low;
  for (uint32_t i = 0; i < count; ++i) {
    const uint64_t key = KeyAt(node, i);
    if (key < least || key >= bounds.high) {
      check_.Damage("ORLO-MAP-ORDER", *disk_, ByteOffset(block) + kKeysAt + 4 * i,
                    fmt::format("component {}: key {} of a map block is out of order", vdisk_->uuid, i),
                    fmt::format("{} to {}", least, bounds.high - 1), std::to_string(key));
      return false;
    }
    least = key + 1;
  }
  return true;
}

void MapCheck::CheckChildren(const uint8_t* node, uint32_t count, const Bounds& bounds, uint32_t level) {
  const Shape& shape = version6_ ? kShape6 : kShape;
  for (uint32_t i = 0; i <= count; ++i) {
    const uint8_t* at = node + shape.childrenAt + i * shape.childSize;
    const uint64_t child = version6_ ? Widen(Load<uint32_t>(at)) : Masked(Load<uint64_t>(at));
    const Bounds own = {i == 0 ? bounds.low : KeyAt(node, i - 1), i == count ? bounds.high : KeyAt(node, i)};
    CheckNode(child, own, level + 1);
  }
}

void MapCheck::CheckLeaf(const uint8_t* node, uint64_t block, uint32_t count) {
  const Shape& shape = version6_ ? kShape6 : kShape;
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t* record = node + shape.recordsAt + i * shape.recordSize;
    const uint64_t key = KeyAt(node, i);
    const uint64_t physical = version6_ ? Widen(Load<uint32_t>(record)) : Masked(Load<uint64_t>(record));
    const uint32_t length = Load<uint32_t>(record + shape.recordSize - 4) & kCountMask;
    if (key < runEnd_) {
      check_.Damage("ORLO-MAP-OVERLAP", *disk_, ByteOffset(block) + kKeysAt + 4 * i,
                    fmt::format("component {}: a run overlaps the one before it", vdisk_->uuid),
                    fmt::format("a key of at least {}", runEnd_), std::to_string(key));
    }
    runEnd_ = std::max(runEnd_, key + length);
    if (runEnd_ > kLogicalEnd) {
      Broken(block, "has a run that leaves the component", kLogicalEnd, runEnd_);
      runEnd_ = kLogicalEnd;
    }
    if (physical != kNone) TakeRun(block, key, physical, length);
  }
}

void MapCheck::TakeRun(uint64_t leaf, uint64_t key, uint64_t physical, uint64_t count) {
  if (physical > blocks_ || count > blocks_ - physical) {
    check_.Damage("ORLO-MAP-BOUNDS", *disk_, ByteOffset(leaf),
                  fmt::format("component {}: the run of logical block {} leaves the disk", vdisk_->uuid, key),
                  fmt::format("at most block {}", blocks_), fmt::format("{} blocks from {}", count, physical));
    return;
  }
  uint64_t twice = 0;
  for (uint64_t i = physical; i < physical + count; ++i) {
    if (taken_[i]) ++twice;
    taken_[i] = true;
  }
  if (twice != 0) {
    check_.Damage("ORLO-MAP-TWICE", *disk_, ByteOffset(physical),
                  fmt::format("component {}: {} blocks in the run of logical block {} are in use already", vdisk_->uuid,
                              twice, key));
  }
}

}  // namespace tool
