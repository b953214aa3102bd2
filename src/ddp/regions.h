#pragma once
// Transfers of metadata blocks by their place in the area.

#include "ddp/superblock.h"

namespace kab::ddp {

/// A place in the area, as a byte offset on the disk; false when it lies beyond 63 bits. `*loc` is set either way.
bool Locate(uint64_t areaOffset, uint64_t start, uint64_t index, uint64_t* loc);

/// Transfers the blocks at `start` + `index`; a place that cannot be is a failed transfer. `locOut` may be null.
uint32_t ReadAt(KABDiskCtx* ctx, uint64_t areaOffset, uint64_t start, uint64_t index, uint32_t count, void* buf,
                uint64_t* locOut);
uint32_t WriteAt(KABDiskCtx* ctx, uint64_t areaOffset, uint64_t start, uint64_t index, uint32_t count, const void* buf);

/// A PBN's number relative to its region on `sb`'s disk, by its type. It wraps for a number below the region's start.
uint64_t RelativeNumber(const SuperBlk& sb, uint64_t pbn);

}  // namespace kab::ddp
