#pragma once
// A capacity disk as its group sees it: where each piece comes from, after a replay of the log.

#include <cstdint>
#include <functional>

#include "group.h"
#include "ranges.h"

namespace tool {

struct Piece {
  uint64_t offset;  // logical, bytes
  uint64_t length;
  const char* source;  // "write buffer", "zero write", "dedup layer" or "disk"
  bool placed;         // whether `place` tells something: not for zero writes and the dedup layer
  bool onSsd;          // in the write buffer
  uint64_t place;      // byte offset on the SSD or on the disk
};

/// Splits a range along the disk's LBA table, as a read through the log does.
void ForEachSource(const KABDiskCtx& disk, const Range& range, const std::function<void(const Piece&)>& take);

}  // namespace tool
