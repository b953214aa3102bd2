#include "orlo_registry.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "failure.h"
#include "kab/orlo.h"
#include "load.h"

namespace tool {
namespace {

constexpr size_t kFormatVersionAt = 468;
constexpr size_t kRegistryOffsetAt = 48;  // in block 0
constexpr size_t kBufferLengthAt = 72;
constexpr size_t kTotalLengthAt = 16;  // in the registry
constexpr size_t kEntryCountAt = 36;
constexpr uint64_t kEntriesAt = 52;
constexpr uint64_t kWindow = 1 << 20;

bool IsVersion6(const KABDiskCtx& disk) { return FormatVersion(disk) == 6; }

Vdisk FromEntry(const KABDiskCtx& disk, const uint8_t* entry) {
  Vdisk vdisk;
  vdisk.id = Load<uint32_t>(entry);
  if (IsVersion6(disk)) {
    vdisk.uuid = UuidText(entry + 20);
    vdisk.mapBlock = Load<uint32_t>(entry + 12);
    vdisk.present = Load<uint32_t>(entry + 16) != 0;
  } else {
    vdisk.uuid = UuidText(entry + 24);
    vdisk.mapBlock = Load<uint64_t>(entry + 16);
    vdisk.present = Load<uint32_t>(entry + 12) != 0;
  }
  return vdisk;
}

}  // namespace

std::string UuidText(const uint8_t* uuid) {
  std::string text;
  for (size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02x}", uuid[i]);
  }
  return text;
}

uint8_t FormatVersion(const KABDiskCtx& disk) { return disk.meta[kFormatVersionAt]; }

bool IsOrlo(const KABDiskCtx& disk) {
  const uint8_t version = FormatVersion(disk);
  return version == 6 || version == 7;
}

uint32_t ReadRegistry(KABDiskCtx* disk, Registry* registry) {
  uint8_t blk0[ORLO_BLOCK0_SIZE];
  uint32_t status = OrloReadBlock0(disk, blk0, nullptr);
  ThrowIfNoMemory(status);
  if (status != KAB_OK) return status;
  registry->offset = Load<uint64_t>(blk0 + kRegistryOffsetAt);
  if (registry->offset >= disk->usableSize) return KAB_BLOCK_INVALID;
  uint8_t head[kEntriesAt];
  status = OrloReadData(disk, head, sizeof head, registry->offset);
  ThrowIfNoMemory(status);
  if (status != KAB_OK) return status;
  registry->stated = Load<uint64_t>(head + kTotalLengthAt);
  registry->length =
      std::min({registry->stated, Load<uint64_t>(blk0 + kBufferLengthAt), disk->usableSize - registry->offset});
  registry->entries = Load<uint32_t>(head + kEntryCountAt);
  return KAB_OK;
}

uint32_t ForEachVdisk(KABDiskCtx* disk, const Registry& registry, const std::function<void(const Vdisk&)>& take) {
  const uint64_t size = IsVersion6(*disk) ? ORLO_VDISK_ENTRY_SIZE_V6 : ORLO_VDISK_ENTRY_SIZE;
  const uint64_t room = registry.length > kEntriesAt ? (registry.length - kEntriesAt) / size : 0;
  const uint64_t entries = std::min<uint64_t>(registry.entries, room);
  const uint64_t perWindow = kWindow / size;
  std::vector<uint8_t> window(perWindow * size);
  for (uint64_t first = 0; first < entries; first += perWindow) {
    const uint64_t count = std::min(perWindow, entries - first);
    const uint32_t status = OrloReadData(disk, window.data(), static_cast<uint32_t>(count * size),
                                         registry.offset + kEntriesAt + first * size);
    ThrowIfNoMemory(status);
    if (status != KAB_OK) return status;
    for (uint64_t i = 0; i < count; ++i) take(FromEntry(*disk, window.data() + i * size));
  }
  return KAB_OK;
}

}  // namespace tool
