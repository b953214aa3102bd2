#include "log_walk.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "findings.h"
#include "kab/ssdlog.h"
#include "load.h"
#include "tool.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kRecordMagic = 0xCAFEF00D08142007;
constexpr size_t kMagicAt = 4;  // in the checkpoint record
constexpr size_t kWriteBufferLengthAt = 28;
constexpr size_t kEntryCountAt = 12;
constexpr uint32_t kEntriesAt = 64;
constexpr size_t kEntryLengthAt = 20;
constexpr uint32_t kPrefixLength = 48;

// Why a walk ended at a block that was read: it is torn, or not of this chain.
std::string EndReason(KABDiskCtx* ssd, const uint8_t* block) {
  LineTrap trap;
  KABSSDLOGCheckLogBlkHdr(ssd, block, 0, 0);
  for (const std::string& line : trap.Take(ssd->uuidText)) {
    if (line.starts_with("Checksum mismatch")) return "the next block is torn or was never written";
  }
  return "the next block does not carry the last block's checksum";
}

}  // namespace

bool HadLog(KABDiskCtx* ssd) {
  for (uint64_t copy = 0; copy < 2; ++copy) {
    uint8_t block[kBlock];
    if (KABReadSSDLOGBlk(ssd, copy, block, nullptr) != KAB_OK || Load<uint64_t>(block + kMagicAt) == kRecordMagic) {
      return true;
    }
  }
  return false;
}

LogEnd WalkLog(KABDiskCtx* ssd, LogKind kind, const TakeBlock& take) {
  const auto next = kind == LogKind::kPlog ? KABSSDLOGPlogReadNext : KABSSDLOGLlogReadNext;
  const uint64_t most = std::min(Load<uint64_t>(ssd->logState->checkpoint + kWriteBufferLengthAt),
                                 (ssd->diskSize - ssd->dataOffset) / kBlock);
  std::vector<uint8_t> current(kBlock);
  std::vector<uint8_t> following(kBlock);
  LogEnd end;
  for (;;) {
    StopIfInterrupted();
    uint64_t offset = 0;
    end.status = next(ssd, end.blocks == 0 ? nullptr : current.data(), following.data(), &offset);
    if (end.status == KAB_END_OF_LOG) {
      if (offset != 0) end.endOffset = offset;
      end.reason = offset != 0 ? EndReason(ssd, following.data()) : end.blocks == 0 ? "it is empty" : "nothing follows";
      return end;
    }
    if (end.status != KAB_OK) {
      end.reason = KABErrorStr(end.status);
      return end;
    }
    if (end.blocks >= most) {
      end.status = KAB_BLOCK_INVALID;
      end.cycle = true;
      end.reason = "it returns to blocks already walked";
      return end;
    }
    take(following.data(), offset, end.lastOffset.value_or(0));
    std::swap(current, following);
    end.lastOffset = offset;
    ++end.blocks;
  }
}

bool ForEachEntry(const uint8_t* block, const std::function<void(const LogEntry&)>& take, LogEntry* broken) {
  LogEntry entry{0, kEntriesAt, 0};
  for (; entry.index < block[kEntryCountAt]; ++entry.index, entry.at += entry.length) {
    const bool prefix = entry.at + kPrefixLength <= kBlock;
    entry.length = prefix ? Load<uint32_t>(block + entry.at + kEntryLengthAt) : 0;
    if (entry.length < kPrefixLength || entry.length > kBlock - entry.at) {
      *broken = entry;
      return false;
    }
    take(entry);
  }
  return true;
}

}  // namespace tool
