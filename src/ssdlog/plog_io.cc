// Capacity disks as their group sees them: every request is split along the disk's LBA table.

#include <algorithm>
#include <cstring>

#include "core/frame/log.h"
#include "core/io/arvo_meta_format.h"
#include "kab/core.h"
#include "kab/ddp.h"
#include "kab/dump.h"
#include "kab/indexes.h"
#include "kab/ssdlog.h"
#include "ssdlog/log_block.h"
#include "zoltcommon/ds/lba_table.h"

namespace kab::ssdlog {
namespace {

constexpr uint32_t kDeviceShift = 50;  // of the device index in the keys of a shared LBA table

bool GaveUpState(const KABDiskCtx* ctx) {
  return ctx->devIdx >= 0 && (ctx->group->plogStateGivenUp >> static_cast<uint32_t>(ctx->devIdx) & 1U) != 0;
}

// Without a replay, or after the disk gave its part of it up, what the disk holds may be stale.
bool Recovered(const KABDiskCtx* ctx) {
  return ctx->group != nullptr && ctx->group->plogRecoveryComplete != 0 && !GaveUpState(ctx);
}

uint64_t KeyBase(const KABDiskCtx* ctx) {
  return DedupMode(ctx->meta) == 2 ? static_cast<uint64_t>(ctx->devIdx) << kDeviceShift : 0;
}

// Whether a piece of `length` bytes at `address` of the SSD log was logged as zeros and lies nowhere.
bool IsZeroWrite(const KABDiskCtx* ssd, uint64_t address, uint64_t length) {
  const uint64_t start = WriteBufferStart(ssd);
  return ((address - 1 + length) >> 12U) - start < kReservedThird && (address >> 12U) - start >= kReservedFirst;
}

// `base` + `at` as a byte offset; one that wraps or no file can have stays out of reach.
int64_t Place(uint64_t base, uint64_t at) {
  return at <= uint64_t{INT64_MAX} - base ? static_cast<int64_t>(base + at) : -1;
}

/// What is done with the pieces of a request.
struct Read {
  static uint32_t Backing(KABDiskCtx* ctx, uint8_t* buf, uint32_t length, uint64_t key) {
    if (DedupMode(ctx->meta) == 2 || DedupMode(ctx->meta) == 1) return DDPRead(ctx, buf, length, key - KeyBase(ctx));
    const int64_t at = Place(ctx->dataOffset, key);
    return at < 0 ? uint32_t{KAB_IO_ERROR} : KABRead(ctx, buf, length, at);
  }
  static uint32_t Logged(KABDiskCtx* ctx, uint8_t* buf, uint32_t length, uint64_t address) {
    const int64_t at = Place(ctx->dataOffset, address);
    return at < 0 ? uint32_t{KAB_IO_ERROR} : KABRead(ctx->group, buf, length, at);
  }
  static uint32_t Zero(uint8_t* buf, uint32_t length) {
    std::memset(buf, 0, length);
    return KAB_OK;
  }
};

struct Write {
  static uint32_t Backing(KABDiskCtx* ctx, const uint8_t* buf, uint32_t length, uint64_t key) {
    const int64_t at = Place(ctx->dataOffset, key);
    return at < 0 ? uint32_t{KAB_IO_ERROR} : KABWrite(ctx, buf, length, at);
  }
  static uint32_t Logged(KABDiskCtx* ctx, const uint8_t* buf, uint32_t length, uint64_t address) {
    const int64_t at = Place(ctx->dataOffset, address);
    return at < 0 ? uint32_t{KAB_IO_ERROR} : KABWrite(ctx->group, buf, length, at);
  }
  static uint32_t Zero(const uint8_t* /*buf*/, uint32_t /*length*/) {
    Log("Error: Failed to do plog write, encountered zero writes at plog\n");
    return KAB_NOT_SUPPORTED;
  }
};

struct Dump {
  static uint32_t Backing(KABDiskCtx* ctx, const uint8_t* /*buf*/, uint32_t length, uint64_t key) {
    if (DedupMode(ctx->meta) == 2 || DedupMode(ctx->meta) == 1) return DDPDump(ctx, length, key - KeyBase(ctx));
    return Add(ctx, ctx, length, key);
  }
  static uint32_t Logged(KABDiskCtx* ctx, const uint8_t* /*buf*/, uint32_t length, uint64_t address) {
    return Add(ctx, ctx->group, length, address);
  }
  static uint32_t Zero(const uint8_t* /*buf*/, uint32_t /*length*/) { return KAB_OK; }

 private:
  static uint32_t Add(const KABDiskCtx* ctx, KABDiskCtx* from, uint32_t length, uint64_t at) {
    if (from->dumpFile == nullptr) return KAB_INVALID_ARGUMENT;
    const int64_t offset = Place(ctx->dataOffset, at);
    return offset < 0 ? uint32_t{KAB_GENERAL_FAILURE}
                      : KABAddChunkToDump(from->dumpFile, from, length, static_cast<uint64_t>(offset));
  }
};

// The part of a request that is still to be done. A dump has no buffer.
template <class Byte>
struct Rest {
  Byte* buf;
  uint64_t key;
  uint32_t length;

  void Skip(uint32_t done) {
    if (buf != nullptr) buf += done;
    key += done;
    length -= done;
  }
};

template <class Access, class Byte>
uint32_t AlongTable(KABDiskCtx* ctx, Byte* buf, uint32_t length, uint64_t offset) {
  Rest<Byte> rest{buf, offset + KeyBase(ctx), length};
  // A context without a group, such as an SSD that shares its state with its disks, has no PLOG of its own.
  if (ctx->group == nullptr || ctx->plogState == nullptr) return Access::Backing(ctx, rest.buf, rest.length, rest.key);
  if (length == 0) return KAB_OK;

  ZOLTLbaTableCursor cursor;
  ZOLTLbaRange* range = nullptr;
  // Without memory for the look-up nothing tells whether the disk is stale there.
  if (ds::FindRange(&ctx->plogState->lbaTable, rest.key, &cursor, &range) != KAB_OK) return KAB_OUT_OF_MEMORY;
  while (range != nullptr && (range->start <= rest.key || range->start - rest.key < rest.length)) {
    if (range->start > rest.key) {
      const auto gap = static_cast<uint32_t>(range->start - rest.key);
      const uint32_t st = Access::Backing(ctx, rest.buf, gap, rest.key);
      if (st != KAB_OK) return st;
      rest.Skip(gap);
    }
    const uint64_t into = rest.key - range->start;
    const auto piece = static_cast<uint32_t>(std::min<uint64_t>(range->length - into, rest.length));
    const uint64_t address = range->address + into;
    const uint32_t st = IsZeroWrite(ctx->group, address, piece) ? Access::Zero(rest.buf, piece)
                                                                : Access::Logged(ctx, rest.buf, piece, address);
    if (st != KAB_OK || piece == rest.length) return st;
    rest.Skip(piece);
    // The next is the first that ends above the key.
    if (ds::NextRange(&ctx->plogState->lbaTable, &cursor, &range) != KAB_OK) return KAB_OUT_OF_MEMORY;
  }
  return Access::Backing(ctx, rest.buf, rest.length, rest.key);
}

}  // namespace
}  // namespace kab::ssdlog

using namespace kab;
using namespace kab::ssdlog;

uint32_t KABPlogRead(KABDiskCtx* ctx, void* buf, uint32_t length, uint64_t offset) {
  if (!Recovered(ctx)) {
    Log("PLOG recovery was not completed. Failing the read.\n");
    return KAB_GENERAL_FAILURE;
  }
  return AlongTable<Read>(ctx, static_cast<uint8_t*>(buf), length, offset);
}

uint32_t KABPlogWrite(KABDiskCtx* ctx, const void* buf, uint32_t length, uint64_t offset) {
  if (!Recovered(ctx)) {
    Log("Error: PLOG recovery was not completed. Failing the write.\n");
    return KAB_GENERAL_FAILURE;
  }
  if (DedupMode(ctx->meta) == 2) {
    Log("Error: Failed to do plog write, dedup write is not supported\n");
    return KAB_NOT_SUPPORTED;
  }
  return AlongTable<Write>(ctx, static_cast<const uint8_t*>(buf), length, offset);
}

uint32_t KABPlogDump(KABDiskCtx* ctx, uint32_t length, uint64_t offset) {
  if (ctx->group != nullptr && GaveUpState(ctx)) {
    Log("PLOG recovery was not completed. Failing the dump.\n");
    return KAB_GENERAL_FAILURE;
  }
  if (ctx->dumpFile == nullptr) return KAB_INVALID_ARGUMENT;
  return AlongTable<Dump, const uint8_t>(ctx, nullptr, length, offset);
}
