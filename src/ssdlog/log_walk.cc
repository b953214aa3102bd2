// Steps along the chains of log blocks. A torn or stale block is how a log ends: no error, no line.

#include "ssdlog/log_walk.h"

#include <algorithm>

#include "core/frame/log.h"
#include "kab/core.h"
#include "kab/ssdlog.h"
#include "ssdlog/log_block.h"
#include "ssdlog/mix_checksum.h"

namespace kab::ssdlog {
namespace {

// Where a step goes, and the checksum that it must find there (0: any).
struct Step {
  uint64_t blkNo;
  uint64_t chain;
};

uint32_t FirstStep(const KABDiskCtx* ctx, LogKind kind, Step* step) {
  const CheckpointRecord* record = CurrentRecord(ctx);
  if (record == nullptr) return KAB_NO_CHECKPOINT;
  *step = {kind == LogKind::kPlog ? record->plogFirst : record->llogFirst, 0};
  return KAB_OK;
}

void ReportRead(LogKind kind, uint64_t blkNo, uint32_t st) {
  if (kind == LogKind::kPlog) {
    Log("Error: Failed to read PLOG log block %lu: %s.\n", blkNo, KABErrorStr(st));
  } else {
    Log("Error: Failed to read LLOG log block %lu: %s.\n", blkNo, KABErrorStr(st));
  }
}

bool ChecksumHolds(const void* block) {
  return static_cast<const LogBlockHeader*>(block)->checksum == BlockChecksum(static_cast<const uint8_t*>(block));
}

uint32_t ReadNext(KABDiskCtx* ctx, LogKind kind, const void* cur, void* buf, uint64_t* outOffset) {
  if (outOffset != nullptr) *outOffset = 0;
  Step step;
  if (cur != nullptr) {
    const auto& header = *static_cast<const LogBlockHeader*>(cur);
    step = {header.next, header.checksum};
  } else if (const uint32_t st = FirstStep(ctx, kind, &step); st != KAB_OK) {
    return st;
  }
  if (step.blkNo == kInvalidBlk) return KAB_END_OF_LOG;
  const uint32_t st = KABReadSSDLOGBlk(ctx, step.blkNo, buf, outOffset);
  if (st != KAB_OK) {
    ReportRead(kind, step.blkNo, st);
    return st;
  }
  if (!ChecksumHolds(buf)) return KAB_END_OF_LOG;
  if (step.chain != 0 && static_cast<const LogBlockHeader*>(buf)->prevChecksum != step.chain) return KAB_END_OF_LOG;
  return KAB_OK;
}

}  // namespace

uint32_t LogWalk::Prepare() {
  deviceBlocks_ = ctx_->diskSize > ctx_->dataOffset ? (ctx_->diskSize - ctx_->dataOffset) / kBlockSize : 0;
  window_ = AllocBytes(kWindow * kBlockSize);
  visited_.reset(static_cast<uint64_t*>(KABAlloc((deviceBlocks_ / 64 + 1) * sizeof(uint64_t))));
  return window_ != nullptr && visited_ != nullptr ? KAB_OK : KAB_OUT_OF_MEMORY;
}

uint32_t LogWalk::Visit(uint64_t blkNo) {
  const uint64_t bit = uint64_t{1} << (blkNo % 64);
  if (blkNo >= deviceBlocks_ || (visited_[blkNo / 64] & bit) != 0) {
    Log("%s: MetaError: Log chain comes back to log block %lu\n", ctx_->uuidText, blkNo);
    return KAB_BLOCK_INVALID;
  }
  visited_[blkNo / 64] |= bit;
  return KAB_OK;
}

// Makes the block present. What lies ahead of it is a guess: if it cannot be read, the block is read alone.
uint32_t LogWalk::Fetch(uint64_t blkNo) {
  if (blkNo - windowFirst_ < windowCount_) return KAB_OK;
  const bool contiguous = windowCount_ != 0 && blkNo == windowFirst_ + windowCount_;
  ahead_ = contiguous ? std::min(ahead_ * 2, kWindow) : 1;
  windowFirst_ = blkNo;
  windowCount_ = 0;
  summed_ = 0;
  const uint64_t onDevice = blkNo < deviceBlocks_ ? deviceBlocks_ - blkNo : 1;
  const auto count = static_cast<uint32_t>(std::min<uint64_t>(ahead_, onDevice));
  uint64_t offset = 0;
  if (count > 1 && BlockOffset(ctx_, blkNo, count, &offset) &&
      KABRead(ctx_, window_.get(), count * uint32_t{kBlockSize}, static_cast<int64_t>(offset)) == KAB_OK) {
    windowCount_ = count;
    return KAB_OK;
  }
  ahead_ = 1;
  const uint32_t st = KABReadSSDLOGBlk(ctx_, blkNo, window_.get(), nullptr);
  if (st == KAB_OK) windowCount_ = 1;
  return st;
}

uint64_t LogWalk::ChecksumAt(uint32_t index) {
  constexpr uint32_t kAtOnce = 8;
  while (summed_ <= index) {
    const uint32_t count = std::min(kAtOnce, windowCount_ - summed_);
    BlockChecksums(window_.get() + summed_ * kBlockSize, count, sums_ + summed_);
    summed_ += count;
  }
  return sums_[index];
}

uint32_t LogWalk::Next() {
  Step step;
  if (block_ != nullptr) {
    step = {Header().next, Header().checksum};
  } else if (uint32_t st = FirstStep(ctx_, kind_, &step); st != KAB_OK || (st = Prepare()) != KAB_OK) {
    return st;
  }
  if (step.blkNo == kInvalidBlk) return KAB_END_OF_LOG;
  uint32_t st = Fetch(step.blkNo);
  if (st != KAB_OK) {
    ReportRead(kind_, step.blkNo, st);
    return st;
  }
  const auto index = static_cast<uint32_t>(step.blkNo - windowFirst_);
  const uint8_t* block = window_.get() + index * kBlockSize;
  const auto& header = *reinterpret_cast<const LogBlockHeader*>(block);
  if (header.checksum != ChecksumAt(index)) return KAB_END_OF_LOG;
  if (step.chain != 0 && header.prevChecksum != step.chain) return KAB_END_OF_LOG;
  st = Visit(step.blkNo);
  if (st != KAB_OK) return st;
  block_ = block;
  blkNo_ = step.blkNo;
  BlockOffset(ctx_, blkNo_, 1, &offset_);
  return KAB_OK;
}

}  // namespace kab::ssdlog

using namespace kab;
using namespace kab::ssdlog;

uint32_t KABSSDLOGLlogReadNext(KABDiskCtx* ctx, const void* cur, void* buf, uint64_t* outOffset) {
  return ReadNext(ctx, LogKind::kLlog, cur, buf, outOffset);
}

uint32_t KABSSDLOGPlogReadNext(KABDiskCtx* ctx, const void* cur, void* buf, uint64_t* outOffset) {
  return ReadNext(ctx, LogKind::kPlog, cur, buf, outOffset);
}

uint32_t KABSSDLOGReadPrev(KABDiskCtx* ctx, uint32_t logType, const void* cur, void* buf, uint64_t* outOffset) {
  if (outOffset != nullptr) *outOffset = 0;
  const CheckpointRecord* record = CurrentRecord(ctx);
  if (record == nullptr) return KAB_NO_CHECKPOINT;  // without its bounds no block can be told to lie within them
  uint64_t blkNo = logType == kPlogType ? record->plogLast : record->llogLast;
  uint64_t expected = 0;
  if (cur != nullptr) {
    const auto& header = *static_cast<const LogBlockHeader*>(cur);
    blkNo = header.prev;
    expected = header.prevChecksum;
  }
  if (blkNo == kInvalidBlk) return KAB_END_OF_LOG;
  if (!InWriteBuffer(*record, blkNo)) {
    Log("%s: Error: Invalid blkNo: %lu, out of write buffer range.\n", ctx->uuidText, blkNo);
    return KAB_BLOCK_INVALID;
  }
  const uint32_t st = KABReadSSDLOGBlk(ctx, blkNo, buf, outOffset);
  if (st != KAB_OK) {
    Log("%s: Error: Failed to read type:%u log block %lu: %s.\n", ctx->uuidText, logType, blkNo, KABErrorStr(st));
    return st;
  }
  if (!ChecksumHolds(buf)) return KAB_END_OF_LOG;
  if (expected != 0 && static_cast<const LogBlockHeader*>(buf)->checksum != expected) return KAB_END_OF_LOG;
  return KAB_OK;
}
