// Replay of the PLOG into one LBA table and one index of live LSNs a disk (or one pair for the whole group).

#include <algorithm>
#include <cstring>

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "core/frame/uuid_text.h"
#include "core/io/arvo_meta_format.h"
#include "kab/indexes.h"
#include "kab/ssdlog.h"
#include "ssdlog/alloc_map.h"
#include "ssdlog/log_block.h"
#include "ssdlog/log_walk.h"
#include "ssdlog/plog_state.h"
#include "zoltcommon/ds/lba_table.h"

namespace kab::ssdlog {
namespace {

constexpr uint32_t kCacheNodes = 128;
constexpr uint32_t kSharedStateMode = 2;
constexpr uint32_t kLbaWord = 3;
constexpr uint32_t kNotThere = 2;  // of an index

// A release steps along the ranges of its write; an honest log takes a handful of steps a release. A forged one could
// send every release along millions of ranges of other writes, so all releases of a replay share an allowance.
constexpr uint64_t kStepsAtFirst = uint64_t{1} << 22U;
constexpr uint64_t kStepsPerBlock = 32768;

struct Replay {
  KABDiskCtx* ctx;
  uint64_t steps = kStepsAtFirst;
};

bool SharedState(const KABDiskCtx* ctx) { return DedupMode(ctx->meta) == kSharedStateMode; }

uint32_t NoCaches(const KABDiskCtx* ctx) {
  Log("%s: Error: Failed to initialize plog state for recovery: %s\n", ctx->uuidText, KABErrorStr(KAB_GENERAL_FAILURE));
  return KAB_GENERAL_FAILURE;
}

uint32_t InitCaches(KABDiskCtx* ctx) {
  if (Bucketlist_CacheInit(&ctx->blPLOGLbaCache, kCacheNodes) != 0) {
    Log("Error: blPLOGLbaCache initialization failed\n");
    return NoCaches(ctx);
  }
  if (Bucketlist_CacheInit(&ctx->blPLOGLsnCache, kCacheNodes) != 0) {
    Log("Error: blPLOGLsnCache initialization failed\n");
    Bucketlist_CacheDestroy(&ctx->blPLOGLbaCache);
    return NoCaches(ctx);
  }
  ctx->plogCachesInitialised = 1;
  return KAB_OK;
}

uint32_t InitState(KABDiskCtx* ctx, KABDiskCtx* caches) {
  return KABSSDLOGInitPLOGState(ctx, &caches->blPLOGLbaCache, &caches->blPLOGLsnCache);
}

uint32_t InitSharedState(KABDiskCtx* ctx) {
  const uint32_t st = InitState(ctx, ctx);
  if (st != KAB_OK) {
    Log("%s: Error: Failed to initialize plog state for recovery: %s\n", ctx->uuidText, KABErrorStr(st));
    return st;
  }
  for (KABDiskCtx* disk : ctx->disks) {  // slots may be sparse
    if (disk != nullptr) disk->plogState = ctx->plogState;
  }
  return KAB_OK;
}

void TearDown(KABDiskCtx* ctx) {
  KABPlogState* shared = ctx->plogState;
  for (KABDiskCtx* disk : ctx->disks) {
    if (disk == nullptr || disk->plogState == nullptr) continue;
    if (SharedState(ctx) || disk->plogState == shared) {
      disk->plogState = nullptr;
    } else {
      KABFreePlogState(&disk->plogState);
    }
  }
  KABFreePlogState(&ctx->plogState);
  ReleasePlaceholders(ctx);
  if (ctx->plogCachesInitialised != 0) KABPLOGFreeBlCaches(ctx);
}

KABDiskCtx* MakePlaceholder(KABDiskCtx* ssd, const uint8_t* uuid) {
  KABDiskCtx* disk = AllocRecord<KABDiskCtx>().release();
  if (disk == nullptr) {
    Log("%s: Error: Failed to allocate dummy disk context for disk " KAB_UUID_FORMAT "\n", ssd->uuidText,
        KAB_UUID_ARGS(uuid));
    return nullptr;
  }
  disk->placeholder = 1;
  disk->fd = -1;
  disk->group = ssd;
  std::memcpy(disk->meta + meta::kUuid, uuid, meta::kUuidSize);
  FormatUuid(uuid, disk->uuidText);
  return disk;
}

uint32_t FindState(KABDiskCtx* ctx, const uint8_t* uuid, KABPlogState** state) {
  if (SharedState(ctx)) {
    *state = ctx->plogState;
    return *state != nullptr ? KAB_OK : KAB_GENERAL_FAILURE;
  }
  const int32_t devIdx = KABGetDevIdx(ctx->meta, Load<uint64_t>(uuid), Load<uint64_t>(uuid + 8));
  if (devIdx < 0) {
    Log("%s: Error: Failed to find the uuid " KAB_UUID_FORMAT " in ssd metadata list\n", ctx->uuidText,
        KAB_UUID_ARGS(uuid));
    return KAB_GENERAL_FAILURE;
  }
  KABDiskCtx*& disk = ctx->disks[devIdx];
  if (disk == nullptr) disk = MakePlaceholder(ctx, uuid);
  if (disk == nullptr) return KAB_GENERAL_FAILURE;
  if (disk->plogState == nullptr) InitState(disk, ctx);
  *state = disk->plogState;
  return *state != nullptr ? KAB_OK : KAB_GENERAL_FAILURE;
}

// A result of the indexes as a status.
uint32_t FromIndex(uint32_t result) { return result == 0 ? KAB_OK : KAB_OUT_OF_MEMORY; }

uint32_t RecordLsn(KABPlogState* state, uint64_t lsn, uint64_t lba) {
  ZOLTIndexMapCursor cursor;
  const uint32_t found = ZOLTIndexMap_Find(&state->indexMap, lsn, &cursor);
  // Of two entries with one LSN the later counts.
  if (found == 0) return FromIndex(ZOLTIndexMap_UpdateData(&state->indexMap, &cursor, lba));
  if (found != kNotThere) return FromIndex(found);
  uint64_t tuple[BUCKETLIST_TUPLE_WORDS] = {lsn};
  tuple[kLbaWord] = lba;
  return FromIndex(ZOLTIndexMap_Insert(&state->indexMap, tuple));
}

// Kept as it is: an unpacked address is a multiple of 8 where it is a reserved one, so the test hardly ever holds.
bool IsExactRemoval(const Extent& extent, uint64_t start) {
  return extent.address == kPackedReservedSecond &&
         ((uint64_t{extent.length} + 0x7FFFFFFFFFD) >> 12U) - start <= 0xFFFFFFFFFF5FE &&
         uint64_t{0x7FFFFFFF} - start > 0xFFFFFF07FF5FE;
}

uint32_t BrokenEntry(const KABDiskCtx* ctx, const char* fault, uint64_t value) {
  Log("%s: MetaError: PLOG entry %s: %lu\n", ctx->uuidText, fault, value);
  return KAB_BLOCK_INVALID;
}

uint32_t ReplayWrite(KABDiskCtx* ctx, KABPlogState* state, Bytes entry) {
  KABDiskCtx* owner = state->owner->group != nullptr ? state->owner->group : state->owner;
  const auto* write = At<PlogWriteEntry>(entry, 0);
  if (write == nullptr) return BrokenEntry(ctx, "too short for a write", entry.size());
  const uint64_t lsn = write->lsn & kLsnMask;
  const uint64_t lba = write->lba;
  const uint32_t length = write->length;
  if (length > UINT64_MAX - lba) return BrokenEntry(ctx, "wraps from LBA", lba);

  UnpackedMap map;
  uint32_t st = UnpackEntryMap(owner, entry, &map);
  if (st != KAB_OK) return st;
  state->maxWriteLength = std::max<uint64_t>(state->maxWriteLength, length);
  st = RecordLsn(state, lsn, lba);
  if (st != KAB_OK) return st;
  ++state->writeEntries;
  if (map == nullptr || MapCount(map.get()) == 0) return KAB_OK;

  const uint64_t data = lsn | uint64_t{SizeClass(length)} << kClassShift;
  const auto arg = reinterpret_cast<uint64_t>(state);
  if (IsExactRemoval(MapExtents(map.get(), 1)[0], WriteBufferStart(owner))) {
    ++state->exactRemovals;
    return FromIndex(ZOLTLbaTable_RemoveRangeExact(&state->lbaTable, lba, lba + length, ReleaseDisplaced, arg));
  }
  return FromIndex(ds::InsertExtents(&state->lbaTable, lba, lsn, map.get(), data, ReleaseDisplaced, arg));
}

// Takes a released LSN's ranges out, from its LBA on through ranges that follow one another without a gap.
uint32_t ReleaseLsn(Replay* replay, KABPlogState* state, uint64_t lsn) {
  ZOLTIndexMapCursor found;
  uint32_t st = ZOLTIndexMap_Find(&state->indexMap, lsn, &found);
  if (st == kNotThere) return KAB_OK;
  if (st != 0) return FromIndex(st);
  const uint64_t lba = found.tuple[kLbaWord];
  st = FromIndex(ZOLTIndexMap_Remove(&state->indexMap, &found));
  if (st != KAB_OK) return st;

  ZOLTLbaTableCursor cursor;
  ZOLTLbaRange* range = nullptr;
  st = FromIndex(ds::FindRange(&state->lbaTable, lba, &cursor, &range));
  if (st != KAB_OK) return st;
  if (range == nullptr || range->start > lba) return KAB_OK;
  uint64_t remaining = ClassLength(ClassOf(range->data), *state);
  while (remaining != 0 && range != nullptr) {
    if (replay->steps == 0) return BrokenEntry(replay->ctx, "releases too much, LSN", lsn);
    --replay->steps;
    const uint64_t length = range->length;
    const uint64_t end = range->start + length;
    if ((range->data & kLsnMask) == lsn) {
      st = FromIndex(ZOLTLbaTable_RemoveRangeExact(&state->lbaTable, range->start, end, ReleaseDisplaced,
                                                   reinterpret_cast<uint64_t>(state)));
      if (st != KAB_OK) return st;
      st = FromIndex(ds::FindRange(&state->lbaTable, end, &cursor, &range));
    } else {
      st = FromIndex(ds::NextRange(&state->lbaTable, &cursor, &range));
    }
    if (st != KAB_OK) return st;
    if (range != nullptr && range->start != end) range = nullptr;
    remaining -= std::min(length, remaining);
  }
  return KAB_OK;
}

uint32_t ReplayRelease(Replay* replay, KABPlogState* state, Bytes entry) {
  const auto* release = At<PlogReleaseEntry>(entry, 0);
  const uint64_t count = release != nullptr ? uint32_t{release->lsnCount} : 0;
  const auto lsns = ArrayAt<le64>(entry, sizeof(PlogReleaseEntry), count);
  if (release == nullptr || !lsns) return BrokenEntry(replay->ctx, "too short for its LSNs", count);
  for (const le64& lsn : *lsns) {
    const uint32_t st = ReleaseLsn(replay, state, lsn & kLsnMask);
    if (st != KAB_OK) return st;
  }
  ++state->freeEntries;
  return KAB_OK;
}

uint32_t ReplayEntry(Replay* replay, Bytes entry) {
  KABPlogState* state = nullptr;
  const auto* prefix = At<EntryPrefix>(entry, 0);
  const auto* header = At<PlogHeader>(entry, kPrefixLength1);
  if (prefix == nullptr || header == nullptr) return BrokenEntry(replay->ctx, "has an impossible length", entry.size());
  const uint32_t st = FindState(replay->ctx, prefix->uuid, &state);
  if (st != KAB_OK) return st;
  switch (header->type) {
    case kPlogWrite:
    case kPlogWriteToo:
      return ReplayWrite(replay->ctx, state, entry);
    case kPlogRelease:
      return ReplayRelease(replay, state, entry);
    case kPlogGcp:
      Log("Wrong entry type PLOG_ENTRY_GCP found\n");
      return KAB_OK;
    default:
      return KAB_OK;
  }
}

uint32_t ReplayBlock(Replay* replay, const LogWalk& walk) {
  const Bytes block(walk.Block(), kBlockSize);
  uint64_t at = sizeof(LogBlockHeader);
  for (uint32_t left = walk.Header().entryCount; left != 0; --left) {
    const auto* prefix = At<EntryPrefix>(block, at);
    const uint64_t length = prefix != nullptr ? uint32_t{prefix->entryLength} : 0;
    if (length < kPrefixLength1 + sizeof(PlogHeader) || length > kBlockSize - at) {
      return BrokenEntry(replay->ctx, "has an impossible length", length);
    }
    const uint32_t st = ReplayEntry(replay, block.subspan(at, length));
    if (st != KAB_OK) return st;
    at += length;
  }
  replay->steps += kStepsPerBlock;
  return KAB_OK;
}

uint32_t ReplayLog(KABDiskCtx* ctx) {
  Replay replay{ctx};
  LogWalk walk(ctx, LogKind::kPlog);
  uint32_t st = walk.Next();
  for (; st == KAB_OK; st = walk.Next()) {
    st = ReplayBlock(&replay, walk);
    if (st != KAB_OK) {
      Log("%s: Error: Recovery of PLOG log block 0x%lx failed: %s.\n", ctx->uuidText, walk.Offset(), KABErrorStr(st));
      return st;
    }
  }
  if (st == KAB_END_OF_LOG) return KAB_OK;
  Log("%s: Error: PLOG log recovery failed with error: %s.\n", ctx->uuidText, KABErrorStr(st));
  return st;
}

}  // namespace
}  // namespace kab::ssdlog

uint32_t KABSSDLOGRecovPlogLog(KABDiskCtx* ctx) {
  using namespace kab::ssdlog;
  if (ctx->plogRecoveryComplete != 0) return KAB_OK;
  uint32_t st = InitCaches(ctx);
  if (st != KAB_OK) return st;
  if (SharedState(ctx)) st = InitSharedState(ctx);
  if (st == KAB_OK) st = ReplayLog(ctx);
  if (st != KAB_OK) {
    TearDown(ctx);
    return st;
  }
  ctx->plogRecoveryComplete = 1;
  return KAB_OK;
}
