// The SSD of a picture: checkpoint records, write buffer, log chains, and what the write buffer holds of each disk.

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "as_group.h"
#include "kab/ssdlog.h"
#include "log_walk.h"
#include "map_gather.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kLsnMask = (uint64_t{1} << 55) - 1;
constexpr uint32_t kWriteLength = 76;                  // bytes of a PLOG write entry up to its payload
constexpr uint64_t kLogicalSpace = uint64_t{1} << 50;  // of a disk in a group of one shared state

uint64_t Word(const uint8_t* bytes) {
  uint64_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// Keeps a chain of any length in a bounded number of segments: when they are full, every second one goes.
class Segments {
 public:
  explicit Segments(MapChain& chain) : chain_(chain) {}

  void Add(uint64_t offset, uint64_t entries) {
    if (open_.blocks != 0 && offset == open_.offset + open_.blocks * kBlock) {
      ++open_.blocks;
      open_.entries += entries;
    } else {
      Close();
      open_ = {offset, 1, chain_.blocks, entries};
    }
    ++chain_.blocks;
    chain_.entries += entries;
  }

  void Close() {
    if (open_.blocks == 0) return;
    if (count_++ % chain_.step == 0) chain_.segments.push_back(open_);
    open_ = {};
    if (chain_.segments.size() < kMapChainSegments) return;
    for (size_t i = 0; i < kMapChainSegments / 2; ++i) chain_.segments[i] = chain_.segments[2 * i];
    chain_.segments.resize(kMapChainSegments / 2);
    chain_.step *= 2;
  }

 private:
  MapChain& chain_;
  MapSegment open_ = {};
  uint64_t count_ = 0;
};

MapChain GatherChain(KABDiskCtx* ssd, LogKind kind) {
  MapChain chain;
  chain.log = LogName(kind);
  Segments segments(chain);
  const LogEnd end = WalkLog(ssd, kind, [&](const uint8_t* block, uint64_t offset, uint64_t) {
    uint64_t entries = 0;
    LogEntry broken{};
    ForEachEntry(
        block,
        [&](const LogEntry& at) {
          ++entries;
          const uint8_t* entry = block + at.at;
          const bool write = kind == LogKind::kPlog && at.length >= kWriteLength && (entry[52] == 1 || entry[52] == 4);
          if (!write) return;
          chain.lastLsn = Word(entry + 56) & kLsnMask;
          if (!chain.firstLsn) chain.firstLsn = chain.lastLsn;
        },
        &broken);
    segments.Add(offset, entries);
  });
  segments.Close();
  chain.end = end.reason;
  return chain;
}

// Which parts of the write buffer are a disk's newest copy, and which parts of that disk they stand for.
void GatherHeld(MapGather& gather, MapRaster& buffer) {
  for (size_t i = 1; i < gather.model.disks.size(); ++i) {
    const KABDiskCtx& ctx = *gather.Disk(i);
    MapDisk& disk = gather.model.disks[i];
    if (ctx.group == nullptr || ctx.plogState == nullptr) continue;
    const bool placed = disk.layout == "plain" || disk.layout == "orlo";
    MapRaster newer(ctx.dataOffset, ctx.usableSize);
    ForEachSource(ctx, {0, kLogicalSpace}, [&](const Piece& piece) {
      const std::string_view source = piece.source;
      if (source != "write buffer" && source != "zero write") return;
      disk.held += piece.length;
      newer.Add(ctx.dataOffset + piece.offset, piece.length);
      if (piece.placed) buffer.Add(piece.place, piece.length, ctx.devIdx);
    });
    if (placed && disk.held != 0) disk.strips.push_back(newer.Shares("newer", "newer in the write buffer", false));
  }
}

}  // namespace

void GatherLog(MapGather& gather) {
  KABDiskCtx* ssd = gather.group.ssd();
  MapDisk& disk = gather.model.disks[0];
  gather.AddRegion(disk, "checkpoint record 1", "superblock", ssd->dataOffset, kBlock);
  gather.AddRegion(disk, "checkpoint record 2", "superblock", ssd->dataOffset + kBlock, kBlock);
  if (KABSSDLOGGetValidCheckPointRecord(ssd) != KAB_OK) {
    gather.model.notes.push_back("the SSD has no valid checkpoint record: its log is not shown");
    return;
  }
  // Clipped to the data area: the record's own rules do not bind these words to the disk.
  const uint64_t blocks = ssd->usableSize / kBlock;
  const uint64_t start = std::min(Word(ssd->logState->checkpoint + 20), blocks);
  const uint64_t length = std::min(Word(ssd->logState->checkpoint + 28), blocks - start);
  const uint64_t offset = ssd->dataOffset + start * kBlock;
  gather.AddRegion(disk, "write buffer", "log", offset, length * kBlock);
  disk.chains.push_back(GatherChain(ssd, LogKind::kPlog));
  disk.chains.push_back(GatherChain(ssd, LogKind::kLlog));
  if (ssd->plogRecoveryComplete == 0) {
    gather.model.notes.push_back("the PLOG could not be replayed: what the write buffer holds is not shown");
    return;
  }
  MapRaster buffer(offset, length * kBlock);
  GatherHeld(gather, buffer);
  disk.strips.push_back(buffer.Shares("held", "newest copies, by disk", true));
}

}  // namespace tool
