#pragma once
// The map trees of a disk, node by node, and which physical blocks they take.

#include <cstdint>
#include <vector>

#include "check.h"
#include "orlo_registry.h"

namespace tool {

class MapCheck {
 public:
  /// Takes one bit for each block of the disk, unless the check is a quick one or that is more than it may take.
  MapCheck(Check& check, KABDiskCtx* disk);

  /// Whether trees can be walked.
  bool walks() const { return !taken_.empty(); }

  /// Blocks that hold something else; what lies behind the disk is left out.
  void Reserve(uint64_t block, uint64_t count);
  /// Walks the tree of a component; only when walks().
  void CheckTree(const Vdisk& vdisk);

  /// Of a block of the data area.
  uint64_t ByteOffset(uint64_t block) const;

 private:
  struct Bounds {
    uint64_t low;   // the least key that a node may hold
    uint64_t high;  // the least key that it may not hold
  };

  void CheckNode(uint64_t block, const Bounds& bounds, uint32_t level);
  void CheckLeaf(const uint8_t* node, uint64_t block, uint32_t count);
  void CheckChildren(const uint8_t* node, uint32_t count, const Bounds& bounds, uint32_t level);
  bool KeysRise(const uint8_t* node, uint64_t block, uint32_t count, const Bounds& bounds);
  /// False for a node that cannot be walked any further.
  bool TakeNode(uint64_t block, uint32_t level);
  void TakeRun(uint64_t leaf, uint64_t key, uint64_t physical, uint64_t count);
  void Broken(uint64_t block, const char* what, uint64_t expected, uint64_t found);
  uint32_t MaxRecords() const;
  uint32_t MaxKeys() const;

  Check& check_;
  KABDiskCtx* disk_;
  bool version6_;
  uint64_t blocks_;
  std::vector<bool> taken_;
  // Of the tree in hand.
  const Vdisk* vdisk_ = nullptr;
  uint64_t runEnd_ = 0;  // logical block behind the run before
};

}  // namespace tool
