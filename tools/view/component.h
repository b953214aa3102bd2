#pragma once
// Components on a group's Orlo disks: finding them and walking their maps. The group's log must have been replayed.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "disk_group.h"
#include "exit_codes.h"
#include "kab/orlo.h"
#include "kab/zolt.h"
#include "orlo_registry.h"

namespace tool {

struct Component {
  KABDiskCtx* disk;
  Vdisk vdisk;
};

/// Every component of the group. `unreadable` gets each disk whose registry cannot be read to its end.
std::vector<Component> FindComponents(DiskGroup& group, const std::function<void(const KABDiskCtx&)>& unreadable);

/// The component with this UUID; of several disks that list it, the last one counts, as for the library. Throws a
/// Failure when there is none, which names the disks that could not be searched.
Component FindComponent(DiskGroup& group, const std::string& uuid);

/// Calls `take` for every run of [startBlock, endBlock) in rising order, holes included where the map has them.
///
/// @param startBlock, endBlock  logical blocks of 4096 bytes.
/// @return a status of the library; 9 also for runs that do not rise.
uint32_t ForEachExtent(const Component& component, uint64_t startBlock, uint64_t endBlock,
                       const std::function<void(const OrloExtent&)>& take);
/// All of them.
uint32_t ForEachExtent(const Component& component, const std::function<void(const OrloExtent&)>& take);

struct CloseComponent {
  void operator()(KABComponentHandle* handle) const { KABComponentClose(handle); }
};
using OpenedComponent = std::unique_ptr<KABComponentHandle, CloseComponent>;

/// Opens a component once the LLOG was replayed, too: it must never be read stale. Throws a Failure otherwise.
OpenedComponent OpenComponent(DiskGroup& group, const std::string& uuid);

}  // namespace tool
