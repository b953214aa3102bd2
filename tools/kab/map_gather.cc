#include "map_gather.h"

#include <fmt/format.h>

#include <algorithm>

#include "orlo_registry.h"

namespace tool {
namespace {

constexpr size_t kTypeAt = 8;
constexpr size_t kModesAt = 11;
constexpr uint8_t kType11 = 11;

const char* LayoutOf(const KABDiskCtx& ctx, bool ssd) {
  if (ssd) return "log";
  const unsigned mode = ctx.meta[kTypeAt] == kType11 ? 0 : ctx.meta[kModesAt] >> 2U & 3U;
  if (mode == 2) return "dedup";
  if (mode == 1) return "compression";
  return ctx.group != nullptr && IsOrlo(ctx) ? "orlo" : "plain";
}

MapDisk NewDisk(const KABDiskCtx& ctx, bool ssd) {
  MapDisk disk;
  if (ctx.devIdx >= 0) disk.slot = ctx.devIdx;
  disk.title = ssd ? "SSD" : disk.slot ? fmt::format("disk {}", *disk.slot) : "disk without a slot";
  disk.uuid = Clean(ctx.uuidText);
  disk.path = Clean(ctx.path);
  disk.layout = LayoutOf(ctx, ssd);
  disk.size = ctx.diskSize;
  disk.dataOffset = ctx.dataOffset;
  disk.formatVersion = FormatVersion(ctx);
  disk.encrypted = ctx.encrypted != 0;
  MapGather::AddRegion(disk, "Arvo metadata", "meta", ctx.metaOffset, KAB_META_BLOCK_SIZE);
  const uint64_t end = ctx.dataOffset + ctx.usableSize;
  MapGather::AddRegion(disk, "secondary partition table", "gpt", end, ctx.diskSize - end);
  return disk;
}

// Sorted, without overlaps, without gaps. What is left between the others is data or reserve.
void CloseGaps(MapModel& model, MapDisk& disk) {
  std::stable_sort(disk.regions.begin(), disk.regions.end(),
                   [](const MapRegion& a, const MapRegion& b) { return a.offset < b.offset; });
  std::vector<MapRegion> whole;
  uint64_t at = 0;
  const auto fill = [&](uint64_t to) {
    const uint64_t border = disk.dataOffset;
    if (at < to && at < border) {
      const uint64_t end = std::min(to, border);
      whole.push_back({at == 0 ? "partition table" : "reserve", at == 0 ? "gpt" : "free", at, end - at});
      at = end;
    }
    if (at < to) {
      const bool data = disk.layout == "plain" || disk.layout == "orlo";
      whole.push_back({data ? "data" : "unused", data ? "data" : "free", at, to - at});
      at = to;
    }
  };
  for (MapRegion& region : disk.regions) {
    fill(region.offset);
    if (region.offset < at) {
      model.notes.push_back(fmt::format("{}: the {} begins within another region", disk.title, region.name));
      const uint64_t hidden = std::min(at - region.offset, region.length);
      region.offset += hidden;
      region.length -= hidden;
    }
    if (region.length == 0) continue;
    at = region.offset + region.length;
    whole.push_back(std::move(region));
  }
  fill(disk.size);
  disk.regions = std::move(whole);
}

void TakeFinding(MapModel& model, std::map<std::string, uint64_t>& taken, const Finding& finding) {
  if (++taken[finding.code] > kMapFindingsOfCode) {
    ++model.leftOut[finding.code];
    return;
  }
  MapFinding pin{finding.severity,        finding.code,        {}, finding.offset, {}, Clean(finding.text),
                 Clean(finding.expected), Clean(finding.found)};
  for (size_t i = 0; i < model.disks.size() && !pin.disk; ++i) {
    if (model.disks[i].uuid == finding.disk) pin.disk = i;
  }
  model.findings.push_back(std::move(pin));
}

}  // namespace

void MapGather::AddRegion(MapDisk& disk, std::string name, const char* kind, uint64_t offset, uint64_t length) {
  if (offset >= disk.size || length == 0) return;
  disk.regions.push_back({std::move(name), kind, offset, std::min(length, disk.size - offset)});
}

void GatherMap(MapGather& gather) {
  MapModel& model = gather.model;
  for (KABDiskCtx* ctx : gather.group.All()) model.disks.push_back(NewDisk(*ctx, ctx == gather.group.ssd()));

  std::map<std::string, uint64_t> taken;
  Findings findings([&](const Finding& finding) { TakeFinding(model, taken, finding); });
  Check check{gather.tool, findings, gather.group, gather.quick};
  CheckGroup(check);
  model.complete = check.complete;
  for (const Severity severity : {Severity::kInfo, Severity::kWarning, Severity::kDamage}) {
    model.counts[static_cast<size_t>(severity)] = findings.Count(severity);
  }
  model.verdict = findings.Count(Severity::kDamage) != 0 ? "damaged" : check.complete ? "clean" : "incomplete";

  {
    LineTrap trap;  // the library tells again what are findings already
    GatherLog(gather);
    trap.Take("");
    GatherDedup(gather);
    trap.Take("");
    GatherOrlo(gather);
  }
  for (MapDisk& disk : model.disks) CloseGaps(model, disk);
  for (MapFinding& pin : model.findings) {
    if (!pin.disk || !pin.offset) continue;
    const MapRegion* region = RegionAt(model.disks[*pin.disk], *pin.offset);
    pin.region = region != nullptr ? region->name : "beyond the end of the disk";
  }
  std::stable_sort(model.findings.begin(), model.findings.end(),
                   [](const MapFinding& a, const MapFinding& b) { return a.severity > b.severity; });
}

}  // namespace tool
