#pragma once
// The vdisks that an Orlo disk's registry lists, one after the other.

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "kab/core.h"

namespace tool {

struct Vdisk {
  std::string uuid;
  uint32_t id = 0;
  bool present = false;   // has a superblock and a map
  uint64_t mapBlock = 0;  // root of its map tree, in blocks of 4096 bytes
};

/// A disk's format version, as its metadata block has it.
uint8_t FormatVersion(const KABDiskCtx& disk);

/// Whether a disk's format version is one that holds Orlo data.
bool IsOrlo(const KABDiskCtx& disk);

/// Where a disk's registry lies and how much of it is there.
struct Registry {
  uint64_t offset = 0;  // bytes from the start of the data area
  uint64_t length = 0;  // bytes that are looked at
  uint64_t stated = 0;  // bytes that the registry says
  uint32_t entries = 0;
};

/// Reads where the registry lies; a status of the library otherwise.
uint32_t ReadRegistry(KABDiskCtx* disk, Registry* registry);

/// Calls `take` for each whole entry, at most as many as the registry holds. A status of the library.
uint32_t ForEachVdisk(KABDiskCtx* disk, const Registry& registry, const std::function<void(const Vdisk&)>& take);

/// 36 characters for sixteen bytes as stored.
std::string UuidText(const uint8_t* uuid);

}  // namespace tool
