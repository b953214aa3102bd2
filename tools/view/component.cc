#include "component.h"

#include <fmt/format.h>
#include <strings.h>

#include "failure.h"
#include "kab/ssdlog.h"

namespace tool {
namespace {

constexpr uint64_t kBlockSpace = uint64_t{1} << 32;  // logical block numbers are 32 bits wide
constexpr uint32_t kRunsAtOnce = 1 << 20;            // blocks a look-up may hand out
constexpr uint32_t kReadMode = 1;

struct FreeExtents {
  void operator()(OrloExtent* extent) const {
    while (extent != nullptr) {
      OrloExtent* next = extent->next;
      KABFree(&extent);
      extent = next;
    }
  }
};
using Extents = std::unique_ptr<OrloExtent, FreeExtents>;

}  // namespace

std::vector<Component> FindComponents(DiskGroup& group, const std::function<void(const KABDiskCtx&)>& unreadable) {
  std::vector<Component> all;
  for (KABDiskCtx* disk : group.disks()) {
    if (disk->group == nullptr || !IsOrlo(*disk)) continue;
    Registry registry;
    uint32_t status = ReadRegistry(disk, &registry);
    if (status == KAB_OK) {
      status = ForEachVdisk(disk, registry, [&](const Vdisk& vdisk) { all.push_back({disk, vdisk}); });
    }
    if (status != KAB_OK) unreadable(*disk);
  }
  return all;
}

Component FindComponent(DiskGroup& group, const std::string& uuid) {
  std::string unsearched;
  const std::vector<Component> all = FindComponents(
      group, [&unsearched](const KABDiskCtx& disk) { unsearched += fmt::format(", {}", disk.uuidText); });
  // As the library finds it: the disk of the highest slot that lists it counts, and of that disk the first entry.
  const Component* found = nullptr;
  for (const Component& one : all) {
    if (strcasecmp(one.vdisk.uuid.c_str(), uuid.c_str()) != 0) continue;
    if (found == nullptr || one.disk->devIdx > found->disk->devIdx) found = &one;
  }
  if (found != nullptr) return *found;
  if (unsearched.empty()) throw Failure(Exit::kNotOurs, fmt::format("no component {}", uuid));
  throw Failure(Exit::kDamageIncomplete,
                fmt::format("no component {}; cannot read the registry of disk {}", uuid, unsearched.substr(2)));
}

uint32_t ForEachExtent(const Component& component, uint64_t startBlock, uint64_t endBlock,
                       const std::function<void(const OrloExtent&)>& take) {
  if (!component.vdisk.present) return KAB_OK;
  OrloBTreeCursor cursor{};
  cursor.root = component.vdisk.mapBlock;
  cursor.version = FormatVersion(*component.disk);
  cursor.disk = component.disk;
  for (uint64_t block = startBlock; block < endBlock;) {
    OrloExtent* list = nullptr;
    const uint32_t status = OrloMapLookup(&cursor, block, endBlock, kRunsAtOnce, &list, kReadMode);
    const Extents extents(list);
    ThrowIfNoMemory(status);
    if (status != KAB_OK) return status;
    if (extents == nullptr) break;
    uint64_t end = block;
    for (const OrloExtent* extent = extents.get(); extent != nullptr; extent = extent->next) {
      take(*extent);
      end = (extent->logicalSectors + extent->sectorCount) * 512 / ORLO_MAP_BLOCK_SIZE;
    }
    if (end <= block) return KAB_BLOCK_INVALID;
    block = end;
  }
  return KAB_OK;
}

uint32_t ForEachExtent(const Component& component, const std::function<void(const OrloExtent&)>& take) {
  return ForEachExtent(component, 0, kBlockSpace, take);
}

OpenedComponent OpenComponent(DiskGroup& group, const std::string& uuid) {
  const uint32_t status = KABSSDLOGRecovLlogLog(group.ssd());
  if (status != KAB_OK) {
    throw Failure(ExitOfStatus(status), "the LLOG cannot be replayed: the component's newest writes would be missing");
  }
  OpenedComponent handle(KABComponentOpen(group.ssd(), uuid.c_str()));
  if (handle == nullptr) throw Failure(Exit::kError, fmt::format("cannot open component {}", uuid));
  return handle;
}

}  // namespace tool
