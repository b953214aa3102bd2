// Dedup superblocks: against the layout rules, against their second copies.

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "check.h"
#include "check_dedup.h"
#include "kab/checksum.h"
#include "load.h"

namespace tool {
namespace {

constexpr size_t kChecksumAt = 16;

struct Field {
  const char* name;
  size_t at;
};
// Eight bytes each: what validation may correct.
constexpr Field kFields[] = {
    {"txnSBStart", 84},         {"txnSBSize", 92},         {"resrvStart", 100},        {"resrvSize", 108},
    {"hmapStart", 116},         {"hmapSize", 124},         {"bmapStart", 132},         {"bmapSize", 140},
    {"xmapStart", 148},         {"xmapSize", 156},         {"dataStart", 164},         {"dataSize", 172},
    {"metaBmapHmapStart", 180}, {"metaBmapHmapSize", 188}, {"metaBmapBmapStart", 196}, {"metaBmapBmapSize", 204},
    {"metaBmapXmapStart", 212}, {"metaBmapXmapSize", 220}, {"softReserveSize", 253},   {"expansion1Size", 261}};

void CheckChecksum(Check& check, KABDiskCtx* disk, const uint8_t* stored) {
  const auto saved = Load<uint32_t>(stored + kChecksumAt);
  const uint32_t computed = DedupChecksum(stored);
  if (saved == computed) return;
  check.Damage("DDP-SUPERBLOCK", *disk, kDedupAreaOffset + kChecksumAt, "the superblock's checksum is wrong",
               fmt::format("{:#010x}", computed), fmt::format("{:#010x}", saved));
}

void CheckSuperblockCopy(Check& check, KABDiskCtx* disk, LineTrap& trap) {
  const uint8_t* primary = disk->dedupCtx.superBlk;
  uint8_t copy[kDedupBlock];
  uint64_t at = 0;
  const bool readable = DDPReadSecSuperBlk(disk, copy, &at) == KAB_OK;
  trap.Take(disk->uuidText);
  DDPCompareSuperBlks(disk);
  const std::vector<std::string> lines = trap.Take(disk->uuidText);
  // A spoilt superblock names any place for its copy.
  const auto place = at < disk->diskSize ? std::optional(at) : std::nullopt;
  for (const std::string& line : lines) check.Warn("DDP-SUPERBLOCK-COPY", *disk, place, line);
  // The library compares what it uses; a copy is one to the last byte.
  if (!lines.empty() || !readable || std::memcmp(primary, copy, sizeof copy) == 0) return;
  const auto differs = static_cast<uint64_t>(std::mismatch(copy, copy + sizeof copy, primary).first - copy);
  check.Warn("DDP-SUPERBLOCK-COPY", *disk, at + differs, "the second copy of the superblock differs");
}

}  // namespace

uint32_t DedupChecksum(const uint8_t* block) {
  constexpr uint8_t kZero[4] = {};
  uint32_t crc = ARVOCrc32_Compute(0, block, kChecksumAt);
  crc = ARVOCrc32_Compute(crc, kZero, sizeof kZero);
  return ARVOCrc32_Compute(crc, block + kChecksumAt + 4, kDedupBlock - kChecksumAt - 4);
}

bool CheckSuperblock(Check& check, KABDiskCtx* disk, bool wholeGroup) {
  LineTrap trap;
  uint8_t stored[kDedupBlock];
  std::memcpy(stored, disk->dedupCtx.superBlk, sizeof stored);
  // Against the copy first: validation corrects the superblock in memory.
  if (DedupArea(disk).redundant()) CheckSuperblockCopy(check, disk, trap);

  if (!wholeGroup) {
    // The size of the hash map is a share of all members' blocks: without them the rules would condemn what is right.
    if (DDPIsValidBlkHdr(disk, stored, DDP_BLK_SUPER, 0) != 0) return true;
    check.Damage("DDP-SUPERBLOCK", *disk, kDedupAreaOffset, "the superblock's header or checksum is wrong");
    check.complete = false;
    return false;
  }
  uint8_t fixed = 0;
  if (DDPValidateSuperBlk(disk, &fixed) == 0) {
    check.TakeLines(trap, "DDP-SUPERBLOCK", *disk, kDedupAreaOffset);
    check.complete = false;
    return false;
  }
  trap.Take(disk->uuidText);  // a line for each field that was corrected, as the findings below say
  CheckChecksum(check, disk, stored);
  for (const Field& field : kFields) {
    const auto found = Load<uint64_t>(stored + field.at);
    const auto expected = Load<uint64_t>(disk->dedupCtx.superBlk + field.at);
    if (found == expected) continue;
    check.Damage("DDP-SUPERBLOCK", *disk, kDedupAreaOffset + field.at,
                 fmt::format("{} is not what the layout rules give", field.name), std::to_string(expected),
                 std::to_string(found));
  }
  return true;
}

}  // namespace tool
