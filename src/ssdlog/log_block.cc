// Judging log blocks, their entries and checkpoint records.

#include "ssdlog/log_block.h"

#include <bit>
#include <cstring>

#include "core/frame/log.h"
#include "kab/core.h"
#include "kab/ssdlog.h"
#include "ssdlog/mix_checksum.h"

namespace kab::ssdlog {

const CheckpointRecord* CurrentRecord(const KABDiskCtx* ctx) {
  if (ctx->logState == nullptr) return nullptr;
  const auto* record = reinterpret_cast<const CheckpointRecord*>(ctx->logState->checkpoint);
  return record->magic == kMagic ? record : nullptr;
}

uint64_t WriteBufferStart(const KABDiskCtx* ctx) {
  const CheckpointRecord* record = CurrentRecord(ctx);
  return record != nullptr ? uint64_t{record->start} : 0;
}

bool BlockOffset(const KABDiskCtx* ctx, uint64_t blkNo, uint64_t blocks, uint64_t* offset) {
  *offset = ctx->dataOffset + blkNo * kBlockSize;
  const uint64_t room = (uint64_t{INT64_MAX} - ctx->dataOffset) / kBlockSize;
  return blkNo < room && blocks <= room - blkNo;
}

namespace {

bool ChecksumMatches(const KABDiskCtx* ctx, uint64_t stored, uint64_t computed) {
  if (stored == computed) return true;
  Log("%s: MetaError: Checksum mismatch. stored:0x%lx, computed:0x%lx\n", ctx->uuidText, stored, computed);
  return false;
}

// What serves to choose between the copies; the pointers are judged elsewhere.
bool QuickCheck(const CheckpointRecord& record) {
  return record.version == kVersion && record.kind == kRecordKind && record.magic == kMagic &&
         record.checksum == RecordChecksum(reinterpret_cast<const uint8_t*>(&record)) && record.blockSize == kBlockSize;
}

// The first block's upper bound and the last block's lower bound are left open on purpose.
bool CheckPointers(const CheckpointRecord& record, uint64_t first, uint64_t last, uint64_t presence) {
  if (first == kInvalidBlk) return last == kInvalidBlk && presence == 0;
  return last != kInvalidBlk && presence != 0 && first >= record.start && last < record.start + record.length;
}

void ForgetRecord(KABDiskCtx* ctx) { std::memset(ctx->logState->checkpoint, 0, sizeof(CheckpointRecord)); }

}  // namespace
}  // namespace kab::ssdlog

using namespace kab;
using namespace kab::ssdlog;

uint32_t KABReadSSDLOGBlk(KABDiskCtx* ctx, uint64_t blkNo, void* buf, uint64_t* outOffset) {
  uint64_t offset = 0;
  const bool readable = BlockOffset(ctx, blkNo, 1, &offset);
  if (outOffset != nullptr) *outOffset = offset;
  if (!readable) return KAB_IO_ERROR;
  return KABRead(ctx, buf, kBlockSize, static_cast<int64_t>(offset));
}

uint32_t KABSSDLOGCheckLogBlkHdr(KABDiskCtx* ctx, const void* blk, uint64_t expectedPrev, uint32_t logType) {
  const auto& header = *static_cast<const LogBlockHeader*>(blk);
  if (!ChecksumMatches(ctx, header.checksum, BlockChecksum(static_cast<const uint8_t*>(blk)))) return 0;
  const uint64_t storedPrev = ctx->dataOffset + header.prev * kBlockSize;
  if (expectedPrev != 0 && expectedPrev != storedPrev) {
    Log("%s: MetaError: Previous block offset is invalid: prev:0x%lx, storedPrev:0x%lx\n", ctx->uuidText, expectedPrev,
        storedPrev);
    return 0;
  }
  const CheckpointRecord* record = CurrentRecord(ctx);
  return header.version == kVersion && header.kind == kRecordKind && header.magic == kMagic &&
         header.logType == logType && header.next != kInvalidBlk && record != nullptr &&
         InWriteBuffer(*record, header.next);
}

uint32_t KABSSDLOGCheckLogEntryPrefix(KABDiskCtx* /*ctx*/, const void* entry) {
  const auto& prefix = *static_cast<const EntryPrefix*>(entry);
  const bool named = Load<uint64_t>(prefix.uuid) != 0 || Load<uint64_t>(prefix.uuid + 8) != 0;
  return named && prefix.entryLength <= kBlockSize &&
         uint64_t{prefix.payloadLength} + kPrefixLength1 <= prefix.entryLength && prefix.version == kVersion;
}

uint32_t KABSSDLOGCheckOperationEntryPrefix(KABDiskCtx* /*ctx*/, const void* entry) {
  const auto& prefix = *static_cast<const OperationPrefix*>(entry);
  return prefix.operation <= kLastOperation && prefix.zero == 0;
}

uint32_t KABSSDLOGCheckPlogLogEntry(KABDiskCtx* /*ctx*/, const void* entry) {
  const auto& header = *static_cast<const PlogHeader*>(entry);
  return header.version == 1 && header.one == 1 &&
         (header.type == kPlogWrite || header.type == kPlogRelease || header.type == kPlogWriteToo);
}

uint32_t KABSSDLOGCheckCPR(KABDiskCtx* ctx, const void* cpr) {
  const auto& record = *static_cast<const CheckpointRecord*>(cpr);
  if (!ChecksumMatches(ctx, record.checksum, RecordChecksum(static_cast<const uint8_t*>(cpr)))) return 0;
  return record.version == kVersion && record.kind == kRecordKind && record.magic == kMagic &&
         CheckPointers(record, record.llogFirst, record.llogLast, record.llogPresence) &&
         CheckPointers(record, record.plogFirst, record.plogLast, record.plogPresence) &&
         record.geometry == kGeometry && record.nonZero != 0 && record.blockSize == kBlockSize &&
         record.end >= record.start + record.length && record.zero == 0;
}

uint32_t KABSSDLOGGetValidCheckPointRecord(KABDiskCtx* ctx) {
  if (ctx->logState == nullptr) return KAB_NO_CHECKPOINT;
  uint8_t* buffer = ctx->logState->checkpoint;
  CheckpointRecord copies[2];
  for (uint32_t i = 0; i < 2; ++i) {
    const uint32_t st = KABReadSSDLOGBlk(ctx, i, buffer, nullptr);
    if (st != KAB_OK) {
      Log("Error: Failed to read checkpoint record %u: %s.\n", i + 1, KABErrorStr(st));
      ForgetRecord(ctx);
      return KAB_IO_ERROR;
    }
    std::memcpy(&copies[i], buffer, sizeof copies[i]);
  }

  const bool valid[2] = {QuickCheck(copies[0]), QuickCheck(copies[1])};
  if (!valid[0] && !valid[1]) {
    Log("%s: MetaError: Both checkpoint records are invalid.. Disk needs to be initialized.\n", ctx->uuidText);
    ForgetRecord(ctx);  // a torn record's magic must not pass for a chosen one
    return KAB_BLOCK_INVALID;
  }
  const bool first = valid[0] && (!valid[1] || copies[0].generation > copies[1].generation);
  const CheckpointRecord& chosen = copies[first ? 0 : 1];
  std::memcpy(buffer, &chosen, sizeof chosen);
  ctx->reservedAddrs[0] = chosen.start + kReservedFirst;
  ctx->reservedAddrs[1] = chosen.start + kReservedSecond;
  ctx->reservedAddrs[2] = chosen.start + kReservedThird;
  return KAB_OK;
}

uint64_t KABCountSetBitsInBuffer(const void* buf, uint64_t nbits) {
  const auto* at = static_cast<const uint8_t*>(buf);
  uint64_t count = 0;
  for (; nbits >= 32; nbits -= 32, at += 4) count += static_cast<uint64_t>(std::popcount(Load<uint32_t>(at)));
  for (; nbits >= 8; nbits -= 8, ++at) count += static_cast<uint64_t>(std::popcount(*at));
  if (nbits != 0) count += static_cast<uint64_t>(std::popcount(*at & ((1U << nbits) - 1U)));
  return count;
}
