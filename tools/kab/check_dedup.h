#pragma once
// What the parts of the dedup check share.

#include <vector>

#include "check.h"
#include "dedup_area.h"
#include "progress.h"

namespace tool {

/// The disks whose maps may name each other's units: a deduplicating group, or one compressed disk alone.
struct DedupSet {
  std::vector<DedupArea> members;
  bool group = false;
  bool whole = true;  // every member is open and has a sound superblock
};

/// The checksum of a metadata block, its own field taken as 0.
uint32_t DedupChecksum(const uint8_t* block);

/// False for a superblock that nothing can be built on. Corrects it in memory, when all members of its group are here.
bool CheckSuperblock(Check& check, KABDiskCtx* disk, bool wholeGroup);

/// Header, checksum and second copy of one block; whether its contents can be believed. Blank blocks of the
/// translation map can: they come into being with the first logical block that they map.
bool CheckBlock(Check& check, const DedupArea& area, const DedupRegion& region, const DedupBlock& block);

/// How often CheckUnits reads the maps of a set.
uint64_t UnitPasses(const Check& check, const DedupSet& set);
/// The blocks of bitmaps, translation maps and hash maps, and what they say of the units.
void CheckUnits(Check& check, const DedupSet& set, Progress& progress);

}  // namespace tool
