#pragma once
// What PLOG replay leaves with a disk group, and its release.

#include "kab/types.h"

namespace kab::ssdlog {

/// An entry's log sequence number has 55 bits.
inline constexpr uint64_t kLsnMask = (uint64_t{1} << 55U) - 1;
inline constexpr uint32_t kClassShift = 59;

/// The size class of a write of `length` bytes. A whole single block and a shorter write are kept apart.
uint32_t SizeClass(uint32_t length);

/// How far from its start the ranges of a write of this class may lie, in bytes.
uint32_t ClassLength(uint32_t sizeClass, const KABPlogState& state);

inline uint32_t ClassOf(uint64_t data) { return static_cast<uint32_t>(data >> kClassShift) & 7U; }

/// The release callback of every change to an LBA table: a whole single-block write that was displaced takes its LSN
/// along. `state` is the KABPlogState.
uint64_t ReleaseDisplaced(uint64_t address, uint64_t length, uint64_t start, uint64_t data, uint64_t owner,
                          uint64_t state);

/// Releases the placeholders that replay left in an SSD's slots and no disk took over, with their PLOG states.
void ReleasePlaceholders(KABDiskCtx* ssd);

/// Releases an SSD's component table; the records in it are their filler's.
void FreeComponentTable(KABDiskCtx* ssd);

}  // namespace kab::ssdlog
