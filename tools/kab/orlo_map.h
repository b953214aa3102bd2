#pragma once
// One walk over a component's map tree: the blocks that its nodes lie in and the runs that its leaves place.

#include <cstdint>
#include <functional>

#include "kab/core.h"

namespace tool {

/// Whole blocks of 4096 bytes, all in bytes.
struct OrloRun {
  uint64_t logical;  // within the component
  uint64_t offset;   // from the start of the data area
  uint64_t length;
};

/// Calls `takeNode` with the offset of every map block from the start of the data area, the root's first, and `takeRun`
/// for every run that has a place on the disk. A node at which the walk breaks off is taken as well. Needs a replayed
/// log. Nothing is checked against the disk's size. A status of the library; 9 also for keys that do not rise, at which
/// the walk ends: nodes shared by a broken tree would come for ever.
uint32_t WalkOrloMap(KABDiskCtx* disk, uint64_t root, const std::function<void(uint64_t offset)>& takeNode,
                     const std::function<void(const OrloRun& run)>& takeRun);

}  // namespace tool
