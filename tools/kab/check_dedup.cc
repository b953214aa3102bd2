// The dedup layer: superblocks, the header of every metadata block, and the maps against each other.

#include "check_dedup.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "load.h"

namespace tool {
namespace {

constexpr uint32_t kMagic = 0xB000DAAA;
constexpr size_t kTypeAt = 4;
constexpr size_t kChecksumAt = 16;
constexpr size_t kOwnerAt = 20;
constexpr size_t kTagAt = 28;
constexpr size_t kOwnerIdAt = 56;
constexpr size_t kTableAt = 60;
constexpr uint32_t kCompressed = 1;

struct HeaderFault {
  const char* field;
  size_t at;
  uint64_t expected;
  uint64_t found;
};

// The first field that makes a header invalid, in the order of the library's own test.
HeaderFault FindFault(const DedupArea& area, const DedupRegion& region, const DedupBlock& block) {
  const KABDiskCtx& disk = *area.disk();
  const auto owner = Load<uint64_t>(disk.dedupCtx.superBlk + kOwnerIdAt);
  const uint64_t place = region.start + block.index - region.firstIndex;
  const uint64_t device = DedupMode(disk) == kCompressed ? 0 : static_cast<uint64_t>(disk.devIdx) << 44U;
  const HeaderFault fields[] = {
      {"magic", 0, kMagic, Load<uint32_t>(block.bytes)},
      {"type", kTypeAt, region.type, Load<uint32_t>(block.bytes + kTypeAt)},
      {"owner", kOwnerAt, owner, Load<uint64_t>(block.bytes + kOwnerAt)},
      {"checksum", kChecksumAt, DedupChecksum(block.bytes), Load<uint32_t>(block.bytes + kChecksumAt)},
      {"address tag", kTagAt, place | uint64_t{region.type} << 40U | device, Load<uint64_t>(block.bytes + kTagAt)}};
  for (const HeaderFault& field : fields) {
    if (field.expected != field.found) return field;
  }
  return fields[0];
}

void CheckCopy(Check& check, const DedupArea& area, const DedupRegion& region, const DedupBlock& block) {
  if (region.copy == 0 || (block.copy != nullptr && std::memcmp(block.bytes, block.copy, kDedupBlock) == 0)) return;
  check.Warn("DDP-COPY", *area.disk(), kDedupAreaOffset + (region.copy + block.index - region.firstIndex) * kDedupBlock,
             fmt::format("the second copy of block {} of the {} {}", block.index, region.name,
                         block.copy == nullptr ? "cannot be read" : "differs"));
}

bool IsUnitMap(uint32_t type) { return type == DDP_BLK_BITMAP || type == DDP_BLK_HASH_MAP || type == DDP_BLK_XMAP; }

bool AllMembersOpen(const KABDiskCtx& ssd) {
  for (size_t slot = 0; slot < KAB_DISKS_PER_GROUP; ++slot) {
    const uint8_t* uuid = ssd.meta + kTableAt + 16 * slot;
    const bool listed = std::any_of(uuid, uuid + 16, [](uint8_t byte) { return byte != 0; });
    if (listed && (ssd.disks[slot] == nullptr || ssd.disks[slot]->placeholder != 0)) return false;
  }
  return true;
}

std::vector<DedupSet> FindSets(Check& check) {
  KABDiskCtx* ssd = check.group.ssd();
  const bool wholeGroup = AllMembersOpen(*ssd);
  DedupSet group{{}, true, wholeGroup};
  std::vector<DedupSet> sets;
  for (KABDiskCtx* disk : check.group.disks()) {
    if (disk->dedupCtx.superBlk == nullptr) continue;
    const bool alone = DedupMode(*disk) == kCompressed;
    if (!CheckSuperblock(check, disk, alone || wholeGroup)) {
      if (!alone) group.whole = false;
    } else if (alone) {
      sets.push_back({{DedupArea(disk)}, false, true});
    } else {
      group.members.emplace_back(disk);
    }
  }
  if (group.whole && !group.members.empty()) DDPUpdateBlkStatsForDG(ssd);
  if (!group.members.empty()) sets.push_back(std::move(group));
  return sets;
}

// The regions that tell nothing of units: their blocks are looked at once, for themselves.
void CheckOtherRegions(Check& check, const DedupArea& area, Progress& progress) {
  for (const DedupRegion& region : area.regions()) {
    if (IsUnitMap(region.type) || !area.Fits(region)) continue;
    ForEachBlock(area, region, 0, region.size, true, [&](const DedupBlock& block) {
      CheckBlock(check, area, region, block);
      progress.Add(kDedupBlock);
    });
  }
}

void CheckPlaces(Check& check, const DedupArea& area) {
  for (const DedupRegion& region : area.regions()) {
    if (area.Fits(region)) continue;
    check.Damage("DDP-REGION", *area.disk(), {}, fmt::format("the {} leaves the disk", region.name),
                 fmt::format("at most {} blocks", area.blocks()),
                 fmt::format("{} blocks from {}", region.size, region.start));
    check.complete = false;
  }
}

uint64_t BytesToRead(const Check& check, const DedupSet& set) {
  uint64_t bytes = 0;
  for (const DedupArea& area : set.members) {
    for (const DedupRegion& region : area.regions()) {
      if (!area.Fits(region)) continue;
      const bool again = region.type == DDP_BLK_XMAP || region.type == DDP_BLK_HASH_MAP;
      bytes += region.size * kDedupBlock * (again ? UnitPasses(check, set) : 1);
    }
  }
  return bytes;
}

}  // namespace

bool CheckBlock(Check& check, const DedupArea& area, const DedupRegion& region, const DedupBlock& block) {
  KABDiskCtx* disk = area.disk();
  if (block.bytes == nullptr) {
    check.Damage("DDP-UNREADABLE", *disk, block.offset,
                 fmt::format("block {} of the {} cannot be read", block.index, region.name));
    check.complete = false;
    return false;
  }
  CheckCopy(check, area, region, block);
  if (DDPIsValidBlkHdr(disk, block.bytes, region.type, block.index) != 0) return true;
  if (region.type == DDP_BLK_XMAP && IsBlank(block.bytes)) return true;
  const HeaderFault fault = FindFault(area, region, block);
  check.Damage("DDP-BLOCK-HEADER", *disk, block.offset + fault.at,
               fmt::format("block {} of the {} has a wrong {}", block.index, region.name, fault.field),
               fmt::format("{:#x}", fault.expected), fmt::format("{:#x}", fault.found));
  return false;
}

void CheckDedup(Check& check) {
  const std::vector<DedupSet> sets = FindSets(check);
  uint64_t total = 0;
  for (const DedupSet& set : sets) {
    for (const DedupArea& area : set.members) CheckPlaces(check, area);
    total += BytesToRead(check, set);
  }
  if (check.quick || sets.empty()) return;
  Progress progress(check.tool, "check dedup", total);
  for (const DedupSet& set : sets) {
    for (const DedupArea& area : set.members) CheckOtherRegions(check, area, progress);
    CheckUnits(check, set, progress);
  }
  progress.Finish();
}

}  // namespace tool
