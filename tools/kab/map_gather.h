#pragma once
// Fills the model of a picture, one file a layer. What cannot be read becomes a note: the findings tell why.

#include "check.h"
#include "map_model.h"

namespace tool {

struct MapGather {
  Tool& tool;
  Group& group;
  MapModel& model;
  bool quick = false;  // leaves the scans of whole regions out

  KABDiskCtx* Disk(size_t index) { return index == 0 ? group.ssd() : group.disks()[index - 1]; }
  /// Adds a region; the part within the device counts.
  static void AddRegion(MapDisk& disk, std::string name, const char* kind, uint64_t offset, uint64_t length);
};

/// Everything in order: runs kab check, whose findings become pins.
void GatherMap(MapGather& gather);

/// Both checkpoint records, the write buffer, its logs and what it holds of each disk.
void GatherLog(MapGather& gather);
/// Dedup regions; allocation and density of the data region.
void GatherDedup(MapGather& gather);
/// The registry, components and their extents; after a replay.
void GatherOrlo(MapGather& gather);

}  // namespace tool
