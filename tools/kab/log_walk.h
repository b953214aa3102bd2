#pragma once
// Walks along the PLOG and the LLOG as the library steps, with the reason why a log ends.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "kab/core.h"

namespace tool {

enum class LogKind { kPlog, kLlog };

inline const char* LogName(LogKind kind) { return kind == LogKind::kPlog ? "PLOG" : "LLOG"; }

struct LogEnd {
  uint64_t blocks = 0;
  std::optional<uint64_t> lastOffset;  // byte offset of the last block on the SSD
  std::optional<uint64_t> endOffset;   // of a block behind it that was read and found not to follow
  std::string reason;
  uint32_t status = KAB_END_OF_LOG;  // anything else: the walk broke off
  bool cycle = false;                // the chain returned to blocks already walked
};

/// Of an SSD without a valid checkpoint record: one that never had a log is no damage; one whose records are both
/// spoilt, or cannot be read, is.
bool HadLog(KABDiskCtx* ssd);

/// Called for every block with its byte offset and that of the block before it, 0 for the first.
using TakeBlock = std::function<void(const uint8_t* block, uint64_t offset, uint64_t previous)>;

/// Needs a chosen checkpoint record. The library's lines go to the log stream.
LogEnd WalkLog(KABDiskCtx* ssd, LogKind kind, const TakeBlock& take);

/// One entry of a log block, within the block's 4096 bytes.
struct LogEntry {
  uint32_t index;
  uint32_t at;      // bytes from the block's start
  uint32_t length;  // bytes
};

/// Calls `take` for each entry; false, and nothing more, at one whose length leaves its block (its length is given).
bool ForEachEntry(const uint8_t* block, const std::function<void(const LogEntry&)>& take, LogEntry* broken);

}  // namespace tool
