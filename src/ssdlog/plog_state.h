#pragma once
// What PLOG replay leaves with a disk group, and its release.

#include "kab/types.h"

namespace kab::ssdlog {

/// Releases the placeholders that replay left in an SSD's slots and no disk took over, with their PLOG states.
void ReleasePlaceholders(KABDiskCtx* ssd);

/// Releases an SSD's component table; the records in it are their filler's.
void FreeComponentTable(KABDiskCtx* ssd);

}  // namespace kab::ssdlog
