#pragma once
// The current checkpoint record, and what the walks need of log blocks.

#include "kab/types.h"
#include "ssdlog/log_format.h"

namespace kab::ssdlog {

/// The context's current checkpoint record; null before one was chosen.
const CheckpointRecord* CurrentRecord(const KABDiskCtx* ctx);

/// The write-buffer start of the current record, 0 without one.
uint64_t WriteBufferStart(const KABDiskCtx* ctx);

/// Whether the write buffer of `record` holds the block.
inline bool InWriteBuffer(const CheckpointRecord& record, uint64_t blkNo) {
  return blkNo >= record.start && blkNo - record.start < record.length;
}

/// The byte offset of a block, and whether a device can have `blocks` blocks from there on at all.
bool BlockOffset(const KABDiskCtx* ctx, uint64_t blkNo, uint64_t blocks, uint64_t* offset);

}  // namespace kab::ssdlog
