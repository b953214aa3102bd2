#pragma once
// What the other units of the layer ask of the superblock.

#include "ddp/superblock_format.h"
#include "kab/types.h"

namespace kab::ddp {

/// The superblock of a disk whose dedup context was set up; null for any other, placeholders of a replay included.
inline SuperBlk* SuperBlkOf(const KABDiskCtx* ctx) {
  return ctx == nullptr ? nullptr : reinterpret_cast<SuperBlk*>(ctx->dedupCtx.superBlk);
}

/// Blocks of 4096 bytes on the disk.
inline uint64_t CapacityBlks(const KABDiskCtx& ctx) { return ctx.usableSize >> kBlockShift; }

/// Deduplicates over the group, rather than compressing each disk for itself.
bool IsGroupDedup(const KABDiskCtx& ctx);

/// Whether the flags ask for redundant metadata.
inline bool HasMdr(const SuperBlk& sb) { return (sb.flags & kMdr) != 0; }

/// Whether the group's table names a capacity disk for a slot, 0 to 6.
bool IsListedMember(const KABDiskCtx& group, uint32_t slot);

/// The member of a group at a device index, when it is open and has a dedup layer; else null, with a line.
KABDiskCtx* FindMember(KABDiskCtx* group, uint64_t devIdx);

/// The disk on which a PBN's device index points: the member in a deduplicating group, else the disk itself.
KABDiskCtx* DiskOfDevIdx(KABDiskCtx* ctx, uint64_t devIdx);

/// The checksum of a metadata block, computed as if its checksum field were zero.
uint32_t BlkChecksum(const void* block);

/// The absolute block of a region-relative index.
uint64_t AbsoluteBlk(const SuperBlk& sb, uint32_t type, uint64_t index);

/// The tag of a block, as its header holds it.
uint64_t AddressTag(const KABDiskCtx& ctx, uint32_t type, uint64_t blk);

}  // namespace kab::ddp
