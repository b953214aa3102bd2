#include "dump_plan.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>

#include "as_group.h"
#include "findings.h"
#include "kab/ddp.h"
#include "kab/orlo.h"
#include "kab/ssdlog.h"
#include "load.h"
#include "log_walk.h"
#include "orlo_map.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint32_t kMaxLines = 20;          // of what is not in the dump: a broken map has more to tell
constexpr size_t kWriteBufferStartAt = 20;  // in the checkpoint record
constexpr uint64_t kDedupArea = 0x300000;
constexpr size_t kDataStartAt = 164;  // in the dedup superblock, both in blocks
constexpr size_t kExpansionSizeAt = 261;

bool HasDedupLayer(const KABDiskCtx& disk) { return disk.dedupCtx.superBlk != nullptr; }

}  // namespace

void DumpPlan::AddGiven(KABDiskCtx* disk, const std::vector<Range>& ranges) {
  given_[disk].insert(given_[disk].end(), ranges.begin(), ranges.end());
}

void DumpPlan::AddMetadata(KABDiskCtx* disk) {
  if (disk == group_.ssd()) return AddLog();
  AddArvoBlock(disk);
  if (HasDedupLayer(*disk)) {
    AddDedup(disk);
  } else {
    AddHead(disk);
  }
  if (disk->group != nullptr && IsOrlo(*disk)) AddOrlo(disk);
}

void DumpPlan::AddLog() {
  KABDiskCtx* ssd = group_.ssd();
  AddArvoBlock(ssd);
  if (LineTrap trap; KABSSDLOGGetValidCheckPointRecord(ssd) != KAB_OK) {
    AddHead(ssd);
    if (HadLog(ssd)) Lack("the log, which has no valid checkpoint record");
    return;
  }
  // What lies in front of the write buffer, not what users wrote into it.
  const uint64_t start = std::max<uint64_t>(Load<uint64_t>(ssd->logState->checkpoint + kWriteBufferStartAt), 2);
  Add(ssd, ssd->dataOffset, std::min<uint64_t>(start, ssd->metaReserve / kBlock) * kBlock);
  for (const LogKind kind : {LogKind::kPlog, LogKind::kLlog}) {
    const LogEnd end = WalkLog(ssd, kind, [&](const uint8_t*, uint64_t offset, uint64_t) { Add(ssd, offset, kBlock); });
    if (end.endOffset) Add(ssd, *end.endOffset, kBlock);
    if (end.status != KAB_END_OF_LOG) Lack(fmt::format("the {} behind its block {}", LogName(kind), end.blocks));
  }
}

void DumpPlan::AddComponent(const std::string& uuid) {
  if (!Replayed()) throw Failure(Exit::kDamageIncomplete, "the log cannot be replayed: components cannot be found");
  const uint32_t llog = KABSSDLOGRecovLlogLog(group_.ssd());
  if (llog != KAB_OK) Lack("the newest writes of components, which the LLOG holds");
  bool found = false;
  for (KABDiskCtx* disk : group_.disks()) {
    if (disk->group == nullptr || !IsOrlo(*disk)) continue;
    Registry registry;
    if (ReadRegistry(disk, &registry) != KAB_OK) continue;
    ForEachVdisk(disk, registry, [&](const Vdisk& vdisk) {
      if (strcasecmp(vdisk.uuid.c_str(), uuid.c_str()) != 0) return;
      found = true;
      AddArvoBlock(disk);
      AddRegistry(disk, &registry);
      if (vdisk.present) AddMap(disk, vdisk, ~uint64_t{0});
    });
  }
  if (!found) throw Failure(Exit::kNotOurs, fmt::format("no component {}", uuid));
}

std::vector<DiskRanges> DumpPlan::Disks() {
  std::vector<DiskRanges> disks;
  for (KABDiskCtx* disk : group_.All()) {
    std::vector<Range> ranges = Merged(found_[disk]);
    ranges.insert(ranges.end(), given_[disk].begin(), given_[disk].end());
    if (!ranges.empty()) disks.push_back({disk, std::move(ranges)});
  }
  return disks;
}

void DumpPlan::Add(KABDiskCtx* disk, uint64_t offset, uint64_t length) {
  if (offset > disk->diskSize || length > disk->diskSize - offset) {
    Lack(fmt::format("what leaves disk {} at {}", disk->uuidText, offset));
    length = offset < disk->diskSize ? disk->diskSize - offset : 0;
  }
  if (length != 0) found_[disk].push_back({offset, length});
}

// Both encryption blocks lie inside it.
void DumpPlan::AddArvoBlock(KABDiskCtx* disk) { Add(disk, disk->metaOffset, KAB_META_BLOCK_SIZE); }

// Where every layout that can lie there keeps its superblocks.
void DumpPlan::AddHead(KABDiskCtx* disk) {
  Add(disk, disk->dataOffset, std::min<uint64_t>(disk->metaReserve, disk->usableSize));
}

// Everything in front of the data, the second copies included, and the translation map's expansion behind it.
void DumpPlan::AddDedup(KABDiskCtx* disk) {
  LineTrap trap;
  const uint8_t* superBlk = disk->dedupCtx.superBlk;
  uint8_t fixed = 0;
  // A sound superblock is taken at its word: corrections depend on which members of the group are at hand.
  if (DDPIsValidBlkHdr(disk, superBlk, DDP_BLK_SUPER, 0) == 0 && DDPValidateSuperBlk(disk, &fixed) == 0) {
    Add(disk, kDedupArea, kBlock);
    Lack(fmt::format("the dedup regions of disk {}, which has no dedup superblock", disk->uuidText));
    return;
  }
  const uint64_t room = (disk->diskSize - kDedupArea) / kBlock;
  const uint64_t dataStart = Load<uint64_t>(superBlk + kDataStartAt);
  const uint64_t expansion = Load<uint64_t>(superBlk + kExpansionSizeAt);
  if (dataStart > room || expansion > room - dataStart) {
    Add(disk, kDedupArea, kBlock);
    Lack(fmt::format("the dedup regions of disk {}, which leave the disk", disk->uuidText));
    return;
  }
  Add(disk, kDedupArea, (dataStart + expansion) * kBlock);
}

void DumpPlan::AddOrlo(KABDiskCtx* disk) {
  Registry registry;
  if (!Replayed() || !AddRegistry(disk, &registry)) {
    Lack(fmt::format("the registry and the maps of disk {}", disk->uuidText));
    return;
  }
  const uint32_t status = ForEachVdisk(disk, registry, [&](const Vdisk& vdisk) {
    if (vdisk.present) AddMap(disk, vdisk, ORLO_SUPERBLOCK_SIZE);
  });
  if (status != KAB_OK) Lack(fmt::format("a part of the registry of disk {}", disk->uuidText));
}

bool DumpPlan::AddRegistry(KABDiskCtx* disk, Registry* registry) {
  AddLogged(disk, 0, kBlock);
  uint8_t blk0[ORLO_BLOCK0_SIZE];
  if (OrloReadBlock0(disk, blk0, nullptr) != KAB_OK || OrloCheckBlock0(disk, blk0) != KAB_OK) return false;
  if (ReadRegistry(disk, registry) != KAB_OK) return false;
  AddLogged(disk, registry->offset, registry->length);
  return true;
}

// `runsUpTo`: the bytes of the component whose runs are wanted.
void DumpPlan::AddMap(KABDiskCtx* disk, const Vdisk& vdisk, uint64_t runsUpTo) {
  const uint32_t status = WalkOrloMap(
      disk, vdisk.mapBlock, [&](uint64_t offset) { AddLogged(disk, offset, kBlock); },
      [&](const OrloRun& run) {
        if (run.logical < runsUpTo) AddLogged(disk, run.offset, std::min(run.length, runsUpTo - run.logical));
      });
  if (status != KAB_OK) Lack(fmt::format("a part of the map of component {}", vdisk.uuid));
}

// A range of the data area, from where a read through the log takes it.
void DumpPlan::AddLogged(KABDiskCtx* disk, uint64_t offset, uint64_t length) {
  if (offset > disk->usableSize || length > disk->usableSize - offset) {
    Lack(fmt::format("what leaves disk {} at {}", disk->uuidText, disk->dataOffset + offset));
    return;
  }
  if (length == 0) return;
  ForEachSource(*disk, {offset, length}, [&](const Piece& piece) {
    if (piece.placed) Add(piece.onSsd ? disk->group : disk, piece.place, piece.length);
  });
}

bool DumpPlan::Replayed() {
  if (!replayTried_) {
    replayTried_ = true;
    KABDiskCtx* ssd = group_.ssd();
    replayed_ = KABSSDLOGGetValidCheckPointRecord(ssd) == KAB_OK && KABSSDLOGRecovPlogLog(ssd) == KAB_OK;
  }
  return replayed_;
}

void DumpPlan::Lack(const std::string& what) {
  complete_ = false;
  if (++lacks_ > kMaxLines) return;
  tool_.log.Line(fmt::format("kab: not in the dump: {}", what));
}

}  // namespace tool
