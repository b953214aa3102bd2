#pragma once
// Allocation maps of log entries.

#include <span>

#include "core/frame/memory.h"
#include "ssdlog/log_format.h"

namespace kab::ssdlog {

/// An unpacked map: a count, then the extents. Null for an entry without a map.
using UnpackedMap = Owned<uint8_t[]>;

uint32_t MapCount(const void* map);
std::span<Extent> MapExtents(void* map, uint32_t count);

/// Finds, checks and unpacks the map of an entry; `entry` is the entry's own bytes, at least a prefix.
uint32_t UnpackEntryMap(KABDiskCtx* ctx, Bytes entry, UnpackedMap* map);

}  // namespace kab::ssdlog
