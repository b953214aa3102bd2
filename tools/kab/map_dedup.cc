// Disks of a picture that carry the dedup layer: its regions, which data units are in use, and how often they are used.

#include <fmt/format.h>

#include <algorithm>
#include <functional>

#include "kab/ddp.h"
#include "load.h"
#include "map_gather.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kUnit = 2048;
constexpr uint64_t kAreaOffset = 0x300000;
constexpr uint32_t kBatch = 64;  // blocks a read
constexpr uint64_t kNoUnit = 0xFFFFFFFFF;

constexpr size_t kOwnerAt = 20;  // in a block header, a u64; offset 56 of the superblock
constexpr size_t kBitmapBitsAt = 40;
constexpr uint64_t kBitmapBits = 32448;
constexpr size_t kXmapEntriesAt = 46;
constexpr size_t kXmapEntrySize = 18;
constexpr size_t kXmapEntries = 225;
constexpr uint32_t kMagic = 0xB000DAAA;

// A region as the superblock places it: two u64 at bare offsets, start and size in blocks.
struct Region {
  const char* name;
  const char* kind;
  size_t startAt;
};
constexpr Region kRegions[] = {{"transaction superblock", "superblock", 84},
                               {"layer reserve", "free", 100},
                               {"bitmap", "bitmap", 132},
                               {"hash map", "hmap", 116},
                               {"translation map", "xmap", 148},
                               {"hash map's map bitmap", "bitmap", 180},
                               {"bitmap's map bitmap", "bitmap", 196},
                               {"translation map's map bitmap", "bitmap", 212}};

// What is asked of one disk while all of them are scanned: records name units of any member.
struct Member {
  KABDiskCtx* ctx;
  size_t index;         // in the model
  uint64_t areaBlocks;  // that the disk has room for
  uint64_t dataStart;   // block
  uint64_t units;       // of the data region, at most as many as the disk has room for
  MapRaster stored;     // bytes of units in use
  MapRaster logical;    // bytes of logical blocks, per unit that holds them

  uint64_t Word(size_t at) const { return Load<uint64_t>(ctx->dedupCtx.superBlk + at); }
  uint64_t UnitOffset(uint64_t unit) const { return kAreaOffset + dataStart * kBlock + unit * kUnit; }
};

// Blocks of a region one by one; those that cannot be read are counted.
uint64_t ForEachBlock(const Member& member, uint64_t start, uint64_t count, Progress& progress,
                      const std::function<void(uint64_t index, const uint8_t* block)>& take) {
  uint64_t unread = 0;
  std::vector<uint8_t> buffer(kBatch * kBlock);
  if (start > member.areaBlocks) return 0;  // a finding of its own
  count = std::min(count, member.areaBlocks - start);
  for (uint64_t first = 0; first < count; first += kBatch) {
    StopIfInterrupted();
    const uint64_t batch = std::min<uint64_t>(kBatch, count - first);
    const uint64_t offset = kAreaOffset + (start + first) * kBlock;
    if (KABRead(member.ctx, buffer.data(), static_cast<uint32_t>(batch * kBlock), static_cast<int64_t>(offset)) !=
        KAB_OK) {
      unread += batch;
    } else {
      for (uint64_t i = 0; i < batch; ++i) take(first + i, buffer.data() + i * kBlock);
    }
    progress.Add(batch * kBlock);
  }
  return unread;
}

void ScanBitmap(Member& member, uint64_t index, const uint8_t* block) {
  if (index >= member.units / kBitmapBits + 1) return;
  const uint8_t* bits = block + kBitmapBitsAt;
  const uint64_t first = index * kBitmapBits;
  const uint64_t count = std::min(kBitmapBits, member.units - first);
  uint64_t run = 0;  // bits that are set in front of the one at hand
  for (uint64_t i = 0; i <= count; ++i) {
    if (i < count && (bits[i / 8] >> (i % 8) & 1U) != 0) {
      ++run;
    } else if (run != 0) {
      member.stored.Add(member.UnitOffset(first + i - run), run * kUnit);
      run = 0;
    }
  }
}

void CountUnit(Member& member, uint64_t unit, uint64_t weight) {
  // Numbers below the data region wrap and are none of it.
  const uint64_t relative = unit - member.dataStart;
  if (relative < member.units) member.logical.Add(member.UnitOffset(relative), kUnit, -1, weight);
}

// The logical blocks that an entry's units hold; a unit that holds a whole one counts twice its size.
void ScanXmapEntry(std::vector<Member>& members, Member& own, const uint8_t* record) {
  const unsigned type = record[0] & 15U;
  const unsigned device = record[0] >> 4U;
  const uint64_t first = Load<uint32_t>(record + 1) | uint64_t{record[5] & 15U} << 32U;
  const uint64_t second = record[5] >> 4U | uint64_t{Load<uint32_t>(record + 6)} << 4U;
  if (type != DDP_BLK_DATA || first == kNoUnit) return;
  Member* holder = &own;
  if (own.ctx->group != nullptr && (own.ctx->meta[11] >> 2U & 3U) == 2) {
    const auto found = std::find_if(members.begin(), members.end(), [device](const Member& member) {
      return member.ctx->devIdx == static_cast<int32_t>(device);
    });
    if (found == members.end()) return;
    holder = &*found;
  }
  CountUnit(*holder, first, second == kNoUnit ? 2 : 1);
  if (second != kNoUnit) CountUnit(*holder, second, 1);
}

void ScanXmap(std::vector<Member>& members, Member& own, MapRaster& mapped, uint64_t blockOffset,
              const uint8_t* block) {
  const bool trusted = Load<uint32_t>(block) == kMagic && Load<uint64_t>(block + kOwnerAt) == own.Word(56);
  if (!trusted) return;
  uint64_t used = 0;
  for (size_t i = 0; i < kXmapEntries; ++i) {
    const uint8_t* record = block + kXmapEntriesAt + kXmapEntrySize * i + 8;
    if ((record[0] & 15U) == DDP_BLK_DATA) ++used;
    ScanXmapEntry(members, own, record);
  }
  mapped.Add(blockOffset, used * kBlock / kXmapEntries);
}

void AddRegions(MapGather& gather, const Member& member) {
  MapDisk& disk = gather.model.disks[member.index];
  const auto add = [&](const char* name, const char* kind, uint64_t start, uint64_t size) {
    if (start >= member.areaBlocks) return;
    gather.AddRegion(disk, name, kind, kAreaOffset + start * kBlock,
                     std::min(size, member.areaBlocks - start) * kBlock);
  };
  add("dedup superblock", "superblock", 0, 1);
  for (const Region& region : kRegions)
    add(region.name, region.kind, member.Word(region.startAt), member.Word(region.startAt + 8));
  const uint64_t copy = member.Word(116) + member.Word(124);  // behind the hash map, when there is one
  const bool redundant = (member.ctx->dedupCtx.superBlk[80] & 4U) != 0;
  if (redundant && copy < member.dataStart) add("second copy", "copy", copy, member.dataStart - copy);
  add("data units", "data", member.dataStart, (member.units + 1) / 2);
}

// With --quick nothing but the regions is shown: the strips need whole maps.
void Scan(MapGather& gather, std::vector<Member>& members) {
  uint64_t total = 0;
  for (const Member& member : members) total += (member.Word(140) + member.Word(156)) * kBlock;
  Progress progress(gather.tool, "map", total);
  for (Member& member : members) {
    MapDisk& disk = gather.model.disks[member.index];
    uint64_t unread = ForEachBlock(member, member.Word(132), member.Word(140), progress,
                                   [&](uint64_t index, const uint8_t* block) { ScanBitmap(member, index, block); });
    const uint64_t xmapStart = std::min(member.Word(148), member.areaBlocks);
    const uint64_t xmapSize = std::min(member.Word(156), member.areaBlocks - xmapStart);
    MapRaster mapped(kAreaOffset + xmapStart * kBlock, xmapSize * kBlock);
    unread += ForEachBlock(member, xmapStart, xmapSize, progress, [&](uint64_t index, const uint8_t* block) {
      ScanXmap(members, member, mapped, kAreaOffset + (xmapStart + index) * kBlock, block);
    });
    disk.strips.push_back(mapped.Shares("allocation", "translation map entries in use", false));
    if (unread != 0) {
      gather.model.notes.push_back(fmt::format("{}: {} blocks of its maps could not be read", disk.title, unread));
    }
  }
  progress.Finish();
  for (const Member& member : members) {
    MapDisk& disk = gather.model.disks[member.index];
    disk.strips.push_back(member.stored.Shares("allocation", "data units in use", false));
    disk.strips.push_back(member.logical.Ratios("density", "logical bytes per stored byte", member.stored));
  }
}

}  // namespace

void GatherDedup(MapGather& gather) {
  std::vector<Member> members;
  for (size_t i = 1; i < gather.model.disks.size(); ++i) {
    KABDiskCtx* ctx = gather.Disk(i);
    if (ctx->dedupCtx.superBlk == nullptr) continue;
    if (Load<uint32_t>(ctx->dedupCtx.superBlk) != kMagic) {
      gather.model.notes.push_back(
          fmt::format("{}: no dedup superblock, its regions are not shown", gather.model.disks[i].title));
      continue;
    }
    const uint64_t blocks = ctx->usableSize / kBlock;
    const uint64_t dataStart = std::min(Load<uint64_t>(ctx->dedupCtx.superBlk + 164), blocks);
    const uint64_t units = std::min(Load<uint64_t>(ctx->dedupCtx.superBlk + 172), 2 * (blocks - dataStart));
    const uint64_t offset = kAreaOffset + dataStart * kBlock;
    members.push_back({ctx, i, blocks, dataStart, units, {offset, units * kUnit}, {offset, units * kUnit}});
    AddRegions(gather, members.back());
  }
  if (members.empty()) return;
  if (gather.quick) {
    gather.model.notes.push_back("--quick: allocation and density of the dedup layer are not shown");
    return;
  }
  Scan(gather, members);
}

}  // namespace tool
