#pragma once
// A forward walk along a log that reads ahead: the same blocks, statuses and lines as one KABSSDLOGPlogReadNext or
// KABSSDLOGLlogReadNext after the other.

#include "core/frame/memory.h"
#include "ssdlog/log_format.h"

namespace kab::ssdlog {

enum class LogKind : uint8_t { kLlog, kPlog };

class LogWalk {
 public:
  LogWalk(KABDiskCtx* ctx, LogKind kind) : ctx_(ctx), kind_(kind) {}

  /// Moves to the next block, at first to the first one. Besides the statuses of a single step: 9, with a line, for a
  /// chain that comes back to a block of its own, which forged checksums can make it do; 3.
  uint32_t Next();

  /// The current block, 4096 bytes, until the next step.
  const uint8_t* Block() const { return block_; }
  const LogBlockHeader& Header() const { return *reinterpret_cast<const LogBlockHeader*>(block_); }
  /// Its number and its byte offset.
  uint64_t BlkNo() const { return blkNo_; }
  uint64_t Offset() const { return offset_; }

 private:
  static constexpr uint32_t kWindow = 64;  // blocks

  uint32_t Prepare();
  uint32_t Visit(uint64_t blkNo);
  uint32_t Fetch(uint64_t blkNo);
  uint64_t ChecksumAt(uint32_t index);

  KABDiskCtx* ctx_;
  LogKind kind_;
  const uint8_t* block_ = nullptr;
  uint64_t blkNo_ = 0;
  uint64_t offset_ = 0;

  uint64_t deviceBlocks_ = 0;
  Owned<uint64_t[]> visited_;  // a bit a block of the device

  Owned<uint8_t[]> window_;
  uint64_t windowFirst_ = 0;
  uint32_t windowCount_ = 0;  // blocks read
  uint32_t summed_ = 0;       // of these, blocks with a checksum in sums_
  uint32_t ahead_ = 1;        // blocks to read next; grows while the chain is contiguous
  uint64_t sums_[kWindow] = {};
};

}  // namespace kab::ssdlog
