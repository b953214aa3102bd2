// Checkpoint records, the blocks of both logs, and PLOG replay.

#include <fmt/format.h>

#include <cstring>

#include "check.h"
#include "kab/ssdlog.h"
#include "log_walk.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kInvalidBlk = 0xFFFFFFFFFF5FF;
constexpr uint32_t kPrefixLength = 48;
constexpr uint32_t kPlogType = 1;
constexpr size_t kLogTypeAt = 13;
constexpr size_t kNextAt = 16;

// Both copies by every rule; then the choice that the library makes by the quick one.
bool CheckCheckpoints(Check& check) {
  KABDiskCtx* ssd = check.group.ssd();
  LineTrap trap;
  for (uint64_t copy = 0; copy < 2; ++copy) {
    uint8_t block[kBlock];
    uint64_t offset = 0;
    if (KABReadSSDLOGBlk(ssd, copy, block, &offset) != KAB_OK) {
      check.TakeLines(trap, "CPR-UNREADABLE", *ssd, offset);
      check.Damage("CPR-UNREADABLE", *ssd, offset, fmt::format("checkpoint record {} cannot be read", copy + 1));
      continue;
    }
    if (KABSSDLOGCheckCPR(ssd, block) != 0) continue;
    check.TakeLines(trap, "CPR-INVALID", *ssd, offset);
    check.Damage("CPR-INVALID", *ssd, offset, fmt::format("checkpoint record {} breaks a rule", copy + 1));
  }
  if (KABSSDLOGGetValidCheckPointRecord(ssd) == KAB_OK) return true;
  check.TakeLines(trap, "CPR-NONE", *ssd, ssd->dataOffset);
  return false;
}

void CheckEntries(Check& check, KABDiskCtx* ssd, LogKind kind, const uint8_t* block, uint64_t blockOffset) {
  LogEntry broken{};
  const bool whole = ForEachEntry(
      block,
      [&](const LogEntry& at) {
        const uint8_t* entry = block + at.at;
        const uint64_t offset = blockOffset + at.at;
        if (KABSSDLOGCheckLogEntryPrefix(ssd, entry) == 0) {
          check.Damage("LOG-ENTRY-PREFIX", *ssd, offset,
                       fmt::format("{} entry {} has an invalid prefix", LogName(kind), at.index));
        } else if (kind == LogKind::kPlog &&
                   (at.length < kPrefixLength + 8 || KABSSDLOGCheckPlogLogEntry(ssd, entry + kPrefixLength) == 0)) {
          check.Damage("LOG-ENTRY-TYPE", *ssd, offset,
                       fmt::format("{} entry {} has an invalid header", LogName(kind), at.index));
        } else if (KABSSDLOGCheckAllocMap(ssd, entry) == 0) {
          check.Damage(
              "LOG-ALLOC-MAP", *ssd, offset,
              fmt::format("the allocation map of {} entry {} leaves the write buffer", LogName(kind), at.index));
        }
      },
      &broken);
  if (whole) return;
  check.Damage("LOG-ENTRY-LENGTH", *ssd, blockOffset + broken.at,
               fmt::format("{} entry {} leaves its block", LogName(kind), broken.index),
               fmt::format("{} to {}", kPrefixLength, kBlock - broken.at), std::to_string(broken.length));
}

void CheckChain(Check& check, LogKind kind) {
  KABDiskCtx* ssd = check.group.ssd();
  LineTrap trap;
  const LogEnd end = WalkLog(ssd, kind, [&](const uint8_t* block, uint64_t offset, uint64_t previous) {
    const uint32_t type = kind == LogKind::kPlog ? kPlogType : block[kLogTypeAt];  // the LLOG's code is its own
    uint64_t next;
    std::memcpy(&next, block + kNextAt, sizeof next);
    if (KABSSDLOGCheckLogBlkHdr(ssd, block, previous, type) == 0 && next != kInvalidBlk) {
      check.TakeLines(trap, "LOG-BLOCK", *ssd, offset);
      check.Damage("LOG-BLOCK", *ssd, offset, fmt::format("a {} block has an invalid header", LogName(kind)));
    }
    CheckEntries(check, ssd, kind, block, offset);
    // Lines about an entry speak of what is a finding already.
    trap.Take(ssd->uuidText);
  });
  if (end.cycle) {
    check.Damage("LOG-CYCLE", *ssd, end.lastOffset,
                 fmt::format("the {} returns to blocks already walked", LogName(kind)));
  } else if (end.status != KAB_END_OF_LOG) {
    check.TakeLines(trap, "LOG-UNREADABLE", *ssd, end.lastOffset);
    check.complete = false;
  } else {
    check.Inform("LOG-END", *ssd, end.lastOffset,
                 fmt::format("the {} ends after {} blocks: {}", LogName(kind), end.blocks, end.reason));
  }
}

}  // namespace

bool CheckLog(Check& check) {
  if (!CheckCheckpoints(check)) return false;
  CheckChain(check, LogKind::kPlog);
  CheckChain(check, LogKind::kLlog);
  KABDiskCtx* ssd = check.group.ssd();
  LineTrap trap;
  if (KABSSDLOGRecovPlogLog(ssd) != KAB_OK) {
    check.TakeLines(trap, "PLOG-REPLAY", *ssd, {});
    return false;
  }
  const uint32_t status = KABSSDLOGRecovLlogLog(ssd);
  if (status == KAB_NOT_SUPPORTED) {
    check.Inform("LLOG-NOT-REPLAYED", *ssd, {}, "the LLOG holds entries; components may lack their newest writes");
  } else if (status != KAB_OK) {
    check.TakeLines(trap, "LLOG-BROKEN", *ssd, {});
  }
  return true;
}

}  // namespace tool
