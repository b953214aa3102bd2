#pragma once
// A capacity disk as its group sees it: replay first, then reads through the log, and where each piece comes from.

#include <cstdint>
#include <functional>
#include <string>

#include "group.h"
#include "ranges.h"

namespace tool {

/// Chooses the checkpoint record and replays the PLOG. Throws a Failure when there is none or it cannot be replayed.
void ReplayLog(Group& group);

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
