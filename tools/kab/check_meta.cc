// The Arvo metadata of the disks of a group against each other.

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "check.h"
#include "orlo_registry.h"

namespace tool {
namespace {

constexpr uint64_t kMetaOffset = 1048576;
constexpr size_t kTypeAt = 8;
constexpr size_t kModes11At = 9;
constexpr size_t kModesAt = 11;
constexpr size_t kTableAt = 60;
constexpr size_t kVersionAt = 468;
constexpr uint8_t kType11 = 11;

bool IsZero(const uint8_t* uuid) {
  return std::all_of(uuid, uuid + 16, [](uint8_t byte) { return byte == 0; });
}

size_t MountStateAt(const KABDiskCtx& ctx) { return ctx.meta[kTypeAt] == kType11 ? kModes11At : kModesAt; }

uint32_t MountState(const KABDiskCtx& ctx) {
  const uint8_t modes = ctx.meta[MountStateAt(ctx)];
  return ctx.meta[kTypeAt] == kType11 ? modes & 7U : modes >> 5U;
}

void CheckTable(Check& check) {
  const KABDiskCtx& ssd = *check.group.ssd();
  if (ssd.meta[kTypeAt] == kType11) return;
  bool empty = true;
  for (size_t slot = 0; slot < KAB_DISKS_PER_GROUP; ++slot) {
    const uint8_t* uuid = ssd.meta + kTableAt + 16 * slot;
    if (IsZero(uuid)) continue;
    empty = false;
    for (size_t other = 0; other < slot; ++other) {
      if (std::memcmp(uuid, ssd.meta + kTableAt + 16 * other, 16) == 0) {
        check.Damage("META-SLOT-TWICE", ssd, kMetaOffset + kTableAt + 16 * slot,
                     fmt::format("slots {} and {} name the same disk", other, slot));
      }
    }
    if (ssd.disks[slot] == nullptr) {
      check.Warn("META-DISK-MISSING", ssd, kMetaOffset + kTableAt + 16 * slot,
                 fmt::format("the disk of slot {}, {}, was not given or did not open", slot, UuidText(uuid)));
      check.complete = false;
    }
  }
  if (empty) {
    check.Warn("META-TABLE-EMPTY", ssd, kMetaOffset + kTableAt, "the table names no disk: is this the group's SSD?");
  }
}

}  // namespace

void CheckMeta(Check& check) {
  CheckTable(check);
  std::set<uint32_t> modes;
  for (const KABDiskCtx* ctx : check.group.All()) {
    if (MountState(*ctx) == 0) {
      check.Warn("META-MOUNTED", *ctx, kMetaOffset + MountStateAt(*ctx), "the disk was not cleanly unmounted");
    }
    if (ctx->group == nullptr) {
      if (ctx->meta[kTypeAt] == kType11 && ctx != check.group.ssd()) {
        check.Inform("META-DISK-APART", *ctx, kMetaOffset + kTypeAt,
                     "a disk of type 11 belongs to no slot of the group");
      }
      continue;
    }
    const uint8_t expected = ctx->group->meta[kVersionAt];
    if (ctx->meta[kVersionAt] != expected) {
      check.Inform("META-VERSION-DIFFERS", *ctx, kMetaOffset + kVersionAt,
                   fmt::format("format version {}, the SSD has {}", ctx->meta[kVersionAt], expected));
    }
    modes.insert(ctx->meta[kModesAt] >> 2U & 3U);
  }
  if (modes.size() > 1) check.Warn("META-MODES-DIFFER", *check.group.ssd(), "the disks' dedup modes differ");
}

}  // namespace tool
