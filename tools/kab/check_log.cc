// The blocks of both logs, their entries, and PLOG replay.

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "check.h"
#include "kab/ssdlog.h"
#include "load.h"
#include "log_walk.h"
#include "progress.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kMagic = 0xCAFEF00D08142007;
constexpr uint32_t kPrefixLength = 48;

// Places in a block's header.
constexpr size_t kLogTypeAt = 13;
constexpr size_t kNextAt = 16;
constexpr size_t kPreviousAt = 24;
// Places in the checkpoint record.
constexpr size_t kWriteBufferStartAt = 20;
constexpr size_t kWriteBufferLengthAt = 28;
constexpr size_t kLastLlogAt = 44;
constexpr size_t kLastPlogAt = 68;

class ChainCheck {
 public:
  ChainCheck(Check& check, LogKind kind, Progress& progress)
      : check_(check),
        ssd_(check.group.ssd()),
        kind_(kind),
        progress_(progress),
        start_(Load<uint64_t>(ssd_->logState->checkpoint + kWriteBufferStartAt)),
        length_(Load<uint64_t>(ssd_->logState->checkpoint + kWriteBufferLengthAt)),
        last_(Load<uint64_t>(ssd_->logState->checkpoint + (IsPlog() ? kLastPlogAt : kLastLlogAt))) {}

  /// Blocks walked.
  uint64_t Run() {
    LineTrap trap;
    const LogEnd end = WalkLog(ssd_, kind_, [&](const uint8_t* block, uint64_t offset, uint64_t previous) {
      CheckHeader(block, offset, previous);
      CheckEntries(block, offset);
      lastSeen_ = lastSeen_ || offset == ssd_->dataOffset + last_ * kBlock;
      trap.Take(ssd_->uuidText);  // lines about what is a finding already
      progress_.Add(kBlock);
    });
    if (end.cycle) {
      check_.Damage("LOG-CYCLE", *ssd_, end.lastOffset, Text("returns to blocks already walked"));
    } else if (end.status != KAB_END_OF_LOG) {
      check_.TakeLines(trap, "LOG-UNREADABLE", *ssd_, end.lastOffset);
      check_.complete = false;
    } else {
      check_.Inform("LOG-END", *ssd_, end.lastOffset,
                    Text(fmt::format("ends after {} blocks: {}", end.blocks, end.reason)));
      if (last_ != KAB_INVALID_BLK && !lastSeen_) {
        check_.Damage("LOG-SHORT", *ssd_, end.lastOffset,
                      Text("ends before the last block that the checkpoint record names"),
                      fmt::format("block {}", last_), end.reason);
        check_.complete = false;
      }
    }
    return end.blocks;
  }

 private:
  bool IsPlog() const { return kind_ == LogKind::kPlog; }
  std::string Text(const std::string& what) const { return fmt::format("the {} {}", LogName(kind_), what); }

  void CheckHeader(const uint8_t* block, uint64_t offset, uint64_t previous) {
    const auto tell = [&](const char* field, size_t at, const std::string& expected, const std::string& found) {
      check_.Damage("LOG-BLOCK", *ssd_, offset + at, fmt::format("a {} block has a wrong {}", LogName(kind_), field),
                    expected, found);
    };
    const auto equal = [&](const char* field, size_t at, uint64_t expected, uint64_t found) {
      if (found != expected) tell(field, at, fmt::format("{:#x}", expected), fmt::format("{:#x}", found));
    };
    equal("version", 0, 1, Load<uint16_t>(block));
    equal("kind", 2, 5, Load<uint16_t>(block + 2));
    equal("magic", 4, kMagic, Load<uint64_t>(block + 4));
    const uint8_t type = block[kLogTypeAt];
    if (IsPlog()) {
      equal("log type", kLogTypeAt, KAB_LOG_TYPE_PLOG, type);
    } else if (type == KAB_LOG_TYPE_PLOG) {
      tell("log type", kLogTypeAt, "not the PLOG's", std::to_string(type));
    }
    const auto next = Load<uint64_t>(block + kNextAt);
    if (next != KAB_INVALID_BLK && (next < start_ || next - start_ >= length_)) {
      tell("next block", kNextAt, fmt::format("within {} blocks from {}", length_, start_), std::to_string(next));
    }
    if (previous != 0) {
      equal("previous block", kPreviousAt, (previous - ssd_->dataOffset) / kBlock, Load<uint64_t>(block + kPreviousAt));
    }
  }

  void CheckEntries(const uint8_t* block, uint64_t blockOffset) {
    LogEntry broken{};
    if (ForEachEntry(
            block, [&](const LogEntry& at) { CheckEntry(block, at, blockOffset + at.at); }, &broken))
      return;
    check_.Damage("LOG-ENTRY-LENGTH", *ssd_, blockOffset + broken.at,
                  fmt::format("{} entry {} leaves its block", LogName(kind_), broken.index),
                  fmt::format("{} to {}", kPrefixLength, kBlock - broken.at), std::to_string(broken.length));
  }

  void CheckEntry(const uint8_t* block, const LogEntry& at, uint64_t offset) {
    const uint8_t* entry = block + at.at;
    const auto tell = [&](const char* code, const char* what) {
      check_.Damage(code, *ssd_, offset, fmt::format("{} entry {} {}", LogName(kind_), at.index, what));
    };
    if (KABSSDLOGCheckLogEntryPrefix(ssd_, entry) == 0) {
      tell("LOG-ENTRY-PREFIX", "has an invalid prefix");
      return;
    }
    if (IsPlog() && (at.length < kPrefixLength + 8 || KABSSDLOGCheckPlogLogEntry(ssd_, entry + kPrefixLength) == 0)) {
      tell("LOG-ENTRY-TYPE", "has an invalid header");
      return;
    }
    if (IsPlog() && KABGetDevIdx(ssd_->meta, Load<uint64_t>(entry), Load<uint64_t>(entry + 8)) < 0) {
      tell("LOG-ENTRY-DISK", "is of a disk that the group does not list");
    }
    if (!AllocMapHolds(entry)) {
      tell("LOG-ALLOC-MAP", "has an allocation map that is empty or leaves the write buffer");
    }
  }

  // The library's check also says no where memory lacked, so a no is asked for twice.
  bool AllocMapHolds(const uint8_t* entry) {
    if (KABSSDLOGCheckAllocMap(ssd_, entry) != 0) return true;
    void* map = nullptr;
    const uint32_t st = SSDLOG_UnpackAllocMapFromEntry(ssd_, entry, &map);
    KABFree(&map);
    if (st == KAB_OUT_OF_MEMORY) throw Failure(ExitOfStatus(st), "out of memory");
    return KABSSDLOGCheckAllocMap(ssd_, entry) != 0;
  }

  Check& check_;
  KABDiskCtx* ssd_;
  LogKind kind_;
  Progress& progress_;
  uint64_t start_;   // of the write buffer, in blocks
  uint64_t length_;  // blocks
  uint64_t last_;    // the block that the checkpoint record calls the log's last
  bool lastSeen_ = false;
};

bool Replay(Check& check) {
  KABDiskCtx* ssd = check.group.ssd();
  LineTrap trap;
  if (KABSSDLOGRecovPlogLog(ssd) != KAB_OK) {
    check.Damage("PLOG-REPLAY", *ssd, {}, "the PLOG cannot be replayed" + trap.TakeReason(ssd->uuidText));
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

}  // namespace

bool CheckLog(Check& check) {
  if (!CheckCheckpoints(check)) return false;
  const KABDiskCtx& ssd = *check.group.ssd();
  // How long a chain is shows at its end alone: until then the write buffer is the bound, and the replay's share too.
  const uint64_t buffer = std::min(Load<uint64_t>(ssd.logState->checkpoint + kWriteBufferLengthAt),
                                   (ssd.diskSize - ssd.dataOffset) / kBlock);
  Progress progress(check.tool, "check log", 2 * buffer * kBlock);
  uint64_t walked = ChainCheck(check, LogKind::kPlog, progress).Run();
  walked += ChainCheck(check, LogKind::kLlog, progress).Run();
  progress.SetTotal(2 * walked * kBlock);
  const bool replayed = Replay(check);
  progress.Add(walked * kBlock);
  progress.Finish();
  return replayed;
}

}  // namespace tool
