#pragma once
// How full the dedup layer of a disk is.

#include <cstdint>

#include "dedup_area.h"

namespace tool {

struct DedupFill {
  uint64_t units = 0;    // that can hold data, 2048 bytes each
  uint64_t inUse = 0;    // of them, as the bitmap says
  bool complete = true;  // false when blocks of the map that was counted cannot be read or believed
};
/// Counts the bitmap: one block in 30,000 of the disk is read.
DedupFill CountUnits(const DedupArea& area);

struct DedupMapped {
  uint64_t blocks = 0;  // logical, 4096 bytes each
  bool complete = true;
};
/// Counts the translation map, which is read as a whole; `progress` is told of the bytes read.
DedupMapped CountMapped(const DedupArea& area, const std::function<void(uint64_t)>& progress);

}  // namespace tool
