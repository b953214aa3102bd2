// Orlo disks of a picture: block 0, the registry, and the runs of every component.

#include <fmt/format.h>

#include <algorithm>

#include "kab/orlo.h"
#include "map_gather.h"
#include "orlo_map.h"
#include "orlo_registry.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = 4096;

class DiskMap {
 public:
  DiskMap(MapGather& gather, size_t index)
      : gather_(gather),
        ctx_(gather.Disk(index)),
        index_(index),
        disk_(gather.model.disks[index]),
        placed_(disk_.layout == "orlo"),
        mapped_(ctx_->dataOffset, ctx_->usableSize) {}

  void Run() {
    if (placed_) gather_.AddRegion(disk_, "block 0", "superblock", ctx_->dataOffset, kBlock);
    Registry registry;
    if (ReadRegistry(ctx_, &registry) != KAB_OK) return Note("the registry cannot be read, its components are missing");
    // Without an own region on a disk of the dedup layer, where its place is logical.
    if (placed_ && registry.offset >= kBlock) {
      gather_.AddRegion(disk_, "registry", "meta", ctx_->dataOffset + registry.offset, registry.length);
    }
    const uint32_t status = ForEachVdisk(ctx_, registry, [this](const Vdisk& vdisk) {
      StopIfInterrupted();
      if (vdisk.present) AddComponent(vdisk);
    });
    if (status != KAB_OK) Note("the registry cannot be read to its end, components are missing");
    if (!placed_) return Note("its components lie behind the dedup layer and have no place of their own");
    std::stable_sort(disk_.extents.begin(), disk_.extents.end(),
                     [](const MapExtent& a, const MapExtent& b) { return a.offset < b.offset; });
    disk_.strips.push_back(mapped_.Shares("allocation", "blocks of components and their maps", true));
    if (disk_.extentsLeftOut != 0) {
      Note(fmt::format("{} runs of components are in the strip only", disk_.extentsLeftOut));
    }
  }

 private:
  void Note(const std::string& text) { gather_.model.notes.push_back(disk_.title + ": " + text); }

  void AddComponent(const Vdisk& vdisk) {
    std::vector<MapComponent>& list = gather_.model.components;
    const bool listed = list.size() < kMapComponents;
    const size_t number = list.size();
    MapComponent component{vdisk.uuid, index_, 0, 0, true};
    const auto take = [&](uint64_t offset, uint64_t length) {
      const uint64_t place = ctx_->dataOffset + offset;
      mapped_.Add(place, length, listed ? static_cast<int>(number) : -1);
      if (placed_ && listed) AddExtent(number, place, length);
    };
    const uint32_t status = WalkOrloMap(
        ctx_, vdisk.mapBlock, [&](uint64_t offset) { take(offset, kBlock); },
        [&](const OrloRun& run) {
          component.allocated += run.length;
          ++component.extents;
          take(run.offset, run.length);
        });
    component.whole = status == KAB_OK;
    if (listed) {
      list.push_back(std::move(component));
    } else {
      ++gather_.model.componentsLeftOut;
    }
  }

  void AddExtent(size_t component, uint64_t offset, uint64_t length) {
    if (offset >= disk_.size) return;
    length = std::min(length, disk_.size - offset);
    std::vector<MapExtent>& extents = disk_.extents;
    if (!extents.empty() && extents.back().component == component &&
        extents.back().offset + extents.back().length == offset) {
      extents.back().length += length;
    } else if (extents.size() < kMapExtents) {
      extents.push_back({component, offset, length});
    } else {
      ++disk_.extentsLeftOut;
    }
  }

  MapGather& gather_;
  KABDiskCtx* ctx_;
  size_t index_;
  MapDisk& disk_;
  bool placed_;  // components' blocks are the disk's own
  MapRaster mapped_;
};

}  // namespace

void GatherOrlo(MapGather& gather) {
  if (gather.group.ssd()->plogRecoveryComplete == 0) return;
  for (size_t i = 1; i < gather.model.disks.size(); ++i) {
    const KABDiskCtx& ctx = *gather.Disk(i);
    if (ctx.group != nullptr && IsOrlo(ctx)) DiskMap(gather, i).Run();
  }
}

}  // namespace tool
