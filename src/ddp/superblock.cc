// The dedup superblock: where the layer's regions lie, checked against the rules that the disk's size implies.

#include "ddp/superblock.h"

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "core/io/arvo_meta_format.h"
#include "ddp/regions.h"
#include "kab/checksum.h"
#include "kab/core.h"
#include "kab/ddp.h"

namespace kab::ddp {
namespace {

uint64_t DivCeil(uint64_t value, uint64_t by) { return by == 0 ? 0 : value / by + (value % by != 0 ? 1 : 0); }

uint64_t AddClamped(uint64_t a, uint64_t b) {
  uint64_t sum;
  return __builtin_add_overflow(a, b, &sum) ? ~uint64_t{0} : sum;
}

// What the group as a whole says about one disk's layout. Outside a deduplicating group all three are 1; a disk of such
// a group that was opened without it has no members to count.
struct GroupStats {
  uint64_t members;
  uint64_t blks;
};

GroupStats StatsFor(KABDiskCtx* ctx) {
  if (!IsGroupDedup(*ctx)) return {1, 1};
  if (ctx->group == nullptr) return {0, 0};
  DDPUpdateBlkStatsForDG(ctx->group);
  const KABDedupCtx& leading = ctx->group->dedupCtx;
  return {leading.memberCount, leading.totalBlks};
}

// One validation: every expectation that fails is told, corrected and noted.
class Validation {
 public:
  Validation(KABDiskCtx* ctx, uint8_t* fixed) : ctx_(ctx), sb_(*SuperBlkOf(ctx)), fixed_(fixed) {}

  uint32_t Run() {
    *fixed_ = 0;
    if (!CheckHeader()) return 0;
    mdr_ = HasMdr(sb_);
    mapBitmaps_ = mdr_ && (sb_.flags & kHasMapBitmaps) != 0;
    CheckSizes();
    if (mdr_) CheckMapBitmapSizes();
    CheckStarts();
    CheckData();
    sb_.hdr.checksum = BlkChecksum(&sb_);
    *fixed_ = 1;
    return 1;
  }

 private:
  bool CheckHeader() {
    const uint32_t magic = sb_.hdr.magic;
    if (magic != kMagic) {
      Log("%s: MetaError: Invalid magic 0x%x ddp super block SB header\n", ctx_->uuidText, magic);
      return false;
    }
    const uint32_t type = sb_.hdr.blkType;
    if (type != DDP_BLK_SUPER) {
      Log("%s: MetaError: Invalid blk type %u in ddp super block\n", ctx_->uuidText, type);
      return false;
    }
    const uint32_t saved = sb_.hdr.checksum;
    const uint32_t computed = BlkChecksum(&sb_);
    if (saved != computed) {
      Log("%s: MetaError: Checksum mismatch for in ddp super block header, saved %u, computed %u\n", ctx_->uuidText,
          saved, computed);
    }
    return true;
  }

  void Expect(le64& field, uint64_t expected, const char* line) {
    const uint64_t found = field;
    if (found == expected) return;
    Log(line, ctx_->uuidText, found);
    field = expected;
    *fixed_ = 1;
  }

  void CheckSizes() {
    blks_ = CapacityBlks(*ctx_);
    const uint32_t configured = ctx_->dedupCtx.ddpRatio;
    const uint64_t ratio = mdr_ || configured == 0 ? sb_.ddpRatio : configured;
    bmapExp_ = DivCeil(2 * blks_, kBitsPerBlk);
    const uint64_t xmapFull = DivCeil(ratio * blks_, kXmapEntriesPerBlk);
    const GroupStats group = StatsFor(ctx_);
    if ((sb_.flags & kHasHashMap) != 0 && group.members != 0) {
      hmapExp_ = DivCeil(group.blks, kHashEntriesPerBlk) / group.members;
    }

    Expect(sb_.txnSBSize, 1, "%s: MetaError: Invalid txnSBSize %lu\n");
    Expect(sb_.resrvSize, 14, "%s: MetaError: Invalid resrvSize %lu\n");
    if (sb_.hmapSize != hmapExp_) {
      Expect(sb_.hmapSize, hmapExp_, "%s: MetaError: Invalid hmap size %lu\n");
      if (IsGroupDedup(*ctx_) && ctx_->group != nullptr) ctx_->group->dedupCtx.avgHmapSize = hmapExp_;
    }
    Expect(sb_.bmapSize, bmapExp_, "%s: MetaError: Invalid bmapSize %lu\n");
    uint64_t xmapExp = xmapFull;
    if (mdr_) {
      const uint64_t xmapSize = sb_.xmapSize;
      Expect(sb_.expansion1Size, xmapSize < xmapFull ? 2 * (xmapFull - xmapSize) : 0,
             "%s: MetaError: Invalid expansion1Size %lu\n");
      xmapExp = xmapFull - sb_.expansion1Size / 2;
    } else {
      Expect(sb_.expansion1Size, 0, "%s: MetaError: Invalid expansion1Size %lu when mdr disabled\n");
      Expect(sb_.softReserveSize, 0, "%s: MetaError: Invalid softReserveSize %lu when mdr disabled\n");
    }
    Expect(sb_.xmapSize, xmapExp, "%s: MetaError: Invalid xmapSize %lu\n");
  }

  void CheckMapBitmapSizes() {
    const auto size = [this](uint64_t mapBlks, uint8_t blksPerBit) {
      return mapBitmaps_ ? DivCeil(DivCeil(mapBlks, blksPerBit), kBitsPerBlk) : 0;
    };
    Expect(sb_.metaBmapHmapSize, size(hmapExp_, sb_.hmapBlksPerMetaMapBit),
           "%s: MetaError: Invalid metaBmapHmapSize %lu\n");
    Expect(sb_.metaBmapBmapSize, size(bmapExp_, sb_.bmapBlksPerMetaMapBit),
           "%s: MetaError: Invalid metaBmapBmapSize %lu\n");
    // 10, not this disk's ratio: the xmap's bitmap leaves room for the largest one.
    Expect(sb_.metaBmapXmapSize, size(DivCeil(10 * blks_, kXmapEntriesPerBlk), sb_.xmapBlksPerMetaMapBit),
           "%s: MetaError: Invalid metaBmapXmapSize %lu\n");
  }

  void CheckStarts() {
    Expect(sb_.txnSBStart, 1, "%s: MetaError: Invalid txnSBStart %lu\n");
    Expect(sb_.resrvStart, sb_.txnSBStart + sb_.txnSBSize, "%s: MetaError: Invalid resrvStart %lu\n");
    constexpr const char* kHmapLine = "%s: MetaError: Invalid hmapStart %lu\n";
    const uint64_t afterResrv = sb_.resrvStart + sb_.resrvSize;
    if (!mdr_) Expect(sb_.hmapStart, afterResrv, kHmapLine);
    Expect(sb_.bmapStart, mdr_ ? afterResrv : sb_.hmapStart + sb_.hmapSize, "%s: MetaError: Invalid bmapStart %lu\n");
    Expect(sb_.xmapStart, sb_.bmapStart + sb_.bmapSize, "%s: MetaError: Invalid xmapStart %lu\n");
    uint64_t afterMaps = sb_.xmapStart + sb_.xmapSize;
    if (mapBitmaps_) {
      Expect(sb_.metaBmapHmapStart, afterMaps, "%s: MetaError: Invalid metaBmapHmapStart %lu\n");
      Expect(sb_.metaBmapBmapStart, sb_.metaBmapHmapStart + sb_.metaBmapHmapSize,
             "%s: MetaError: Invalid metaBmapBmapStart %lu\n");
      Expect(sb_.metaBmapXmapStart, sb_.metaBmapBmapStart + sb_.metaBmapBmapSize,
             "%s: MetaError: Invalid metaBmapXmapStart %lu\n");
      afterMaps = sb_.metaBmapXmapStart + sb_.metaBmapXmapSize;
    }
    if (mdr_) Expect(sb_.hmapStart, afterMaps, kHmapLine);
  }

  void CheckData() {
    uint64_t start = sb_.xmapStart + sb_.xmapSize;
    if (mdr_) {
      start = sb_.hmapStart + sb_.hmapSize + sb_.txnSBStart + sb_.txnSBSize + sb_.resrvSize + sb_.bmapSize +
              sb_.xmapSize + sb_.metaBmapHmapSize + sb_.metaBmapBmapSize + sb_.metaBmapXmapSize;
    }
    const uint64_t found = sb_.dataStart;
    if (found != start) {
      Log("%s: MetaError: Invalid data start(%d) %lu\n", ctx_->uuidText, mdr_ ? 1 : 0, found);
      sb_.dataStart = start;
      *fixed_ = 1;
    }
    constexpr uint64_t kDifferenceMask = (uint64_t{1} << 52) - 1;
    Expect(sb_.dataSize, 2 * ((blks_ - sb_.expansion1Size - sb_.dataStart) & kDifferenceMask),
           "%s: MetaError: Invalid data size %lu\n");
  }

  KABDiskCtx* ctx_;
  SuperBlk& sb_;
  uint8_t* fixed_;
  bool mdr_ = false;
  bool mapBitmaps_ = false;
  uint64_t blks_ = 0;
  uint64_t hmapExp_ = 0;
  uint64_t bmapExp_ = 0;
};

}  // namespace

bool IsGroupDedup(const KABDiskCtx& ctx) { return DedupMode(ctx.meta) == 2; }

bool IsListedMember(const KABDiskCtx& group, uint32_t slot) {
  const uint8_t* uuid = group.meta + meta::kGroupUuids + slot * meta::kUuidSize;
  return Load<uint64_t>(uuid) != 0 || Load<uint64_t>(uuid + 8) != 0;
}

KABDiskCtx* FindMember(KABDiskCtx* group, uint64_t devIdx) {
  KABDiskCtx* member = group != nullptr && devIdx < KAB_DISKS_PER_GROUP ? group->disks[devIdx] : nullptr;
  if (SuperBlkOf(member) != nullptr) return member;
  Log("Error: Could not find device with idx %u\n", static_cast<uint32_t>(devIdx));
  return nullptr;
}

KABDiskCtx* DiskOfDevIdx(KABDiskCtx* ctx, uint64_t devIdx) {
  return IsGroupDedup(*ctx) ? FindMember(ctx->group, devIdx) : ctx;
}

uint32_t BlkChecksum(const void* block) {
  constexpr uint32_t kField = offsetof(BlkHdr, checksum);
  static constexpr uint8_t kZero[sizeof(le32)] = {};
  const auto* bytes = static_cast<const uint8_t*>(block);
  const uint32_t crc = ARVOCrc32_Compute(ARVOCrc32_Compute(0, bytes, kField), kZero, sizeof kZero);
  return ARVOCrc32_Compute(crc, bytes + kField + sizeof kZero,
                           kBlockSize - kField - static_cast<uint32_t>(sizeof kZero));
}

uint64_t AbsoluteBlk(const SuperBlk& sb, uint32_t type, uint64_t index) {
  switch (type) {
    case DDP_BLK_TXN_SUPER:
      return sb.txnSBStart + index;
    case DDP_BLK_BITMAP:
      return sb.bmapStart + index;
    case DDP_BLK_HASH_MAP:
      return sb.hmapStart + index;
    case DDP_BLK_XMAP:
      return index < sb.xmapSize ? sb.xmapStart + index : sb.dataStart + (index - sb.xmapSize);
    case DDP_BLK_DATA:
      return sb.dataStart + index;
    case DDP_BLK_META_BMAP_HMAP:
      return sb.metaBmapHmapStart + index;
    case DDP_BLK_META_BMAP_BMAP:
      return sb.metaBmapBmapStart + index;
    case DDP_BLK_META_BMAP_XMAP:
      return sb.metaBmapXmapStart + index;
    default:
      return index;
  }
}

uint64_t AddressTag(const KABDiskCtx& ctx, uint32_t type, uint64_t blk) {
  uint64_t tag = (uint64_t{type} << kTypeShift) | (blk & kBlkMask);
  if (DedupMode(ctx.meta) != 1) tag |= uint64_t{static_cast<uint32_t>(ctx.devIdx)} << kDevShift;
  return tag;
}

}  // namespace kab::ddp

using kab::ddp::SuperBlk;
using kab::ddp::SuperBlkOf;

uint32_t DDPReadSuperBlk(KABDiskCtx* ctx, void* buf, uint64_t* locOut) {
  if (locOut != nullptr) *locOut = kab::ddp::kAreaOffset;
  return KABRead(ctx, buf, kab::ddp::kBlockSize, kab::ddp::kAreaOffset);
}

uint32_t DDPReadSecSuperBlk(KABDiskCtx* ctx, void* buf, uint64_t* locOut) {
  const SuperBlk* sb = SuperBlkOf(ctx);
  if (sb == nullptr) return KAB_NOT_SUPPORTED;
  return kab::ddp::ReadAt(ctx, kab::ddp::kAreaOffset, sb->hmapStart, sb->hmapSize, 1, buf, locOut);
}

uint32_t DDPInitDiskCTX(KABDiskCtx* ctx, const char* /*name*/) {
  KABDedupCtx& dedup = ctx->dedupCtx;
  dedup.superBlk = dedup.superBlkBuf;
  const uint32_t st = DDPReadSuperBlk(ctx, dedup.superBlk, &dedup.superBlkLoc);
  if (st != KAB_OK) {
    kab::Log("%s: Error: Failed to read dedupe super block\n", ctx->uuidText);
    return st;
  }
  dedup.blkShift = KABLog2(kab::ddp::kBlockSize);
  return KAB_OK;
}

uint32_t DDPIsValidBlkHdr(KABDiskCtx* ctx, const void* block, uint32_t type, uint64_t index) {
  const SuperBlk* sb = SuperBlkOf(ctx);
  if (sb == nullptr) return 0;
  const auto& hdr = *static_cast<const kab::ddp::BlkHdr*>(block);
  if (hdr.magic != kab::ddp::kMagic || hdr.blkType != type || hdr.owner != sb->id) return 0;
  if (hdr.checksum != kab::ddp::BlkChecksum(block)) return 0;
  const uint64_t tag = hdr.tag;
  return tag == 0 || tag == kab::ddp::AddressTag(*ctx, type, kab::ddp::AbsoluteBlk(*sb, type, index)) ? 1 : 0;
}

void DDPUpdateBlkStatsForDG(KABDiskCtx* groupCtx) {
  KABDedupCtx& stats = groupCtx->dedupCtx;
  stats.memberCount = 0;
  uint64_t bytes = 0;
  uint64_t hmapBlks = 0;
  if (groupCtx->openDiskCount != 0) {
    for (const KABDiskCtx* member : groupCtx->disks) {
      const SuperBlk* sb = SuperBlkOf(member);
      if (sb == nullptr || (sb->flags & kab::ddp::kHasHashMap) == 0) continue;
      ++stats.memberCount;
      // Clamped: sizes are the disks' word, and D * H must not pass 64 bits.
      bytes = kab::ddp::AddClamped(bytes, member->usableSize);
      hmapBlks = kab::ddp::AddClamped(hmapBlks, sb->hmapSize);
    }
  }
  stats.totalBlks = bytes >> kab::ddp::kBlockShift;
  stats.avgHmapSize = stats.memberCount == 0 ? 0 : hmapBlks / stats.memberCount;
}

uint32_t DDPValidateSuperBlk(KABDiskCtx* ctx, uint8_t* fixedOut) {
  if (SuperBlkOf(ctx) == nullptr) {
    *fixedOut = 0;
    return 0;
  }
  return kab::ddp::Validation(ctx, fixedOut).Run();
}

void DDPCompareSuperBlks(KABDiskCtx* ctx) {
  const SuperBlk* primary = SuperBlkOf(ctx);
  if (primary == nullptr) return;
  const kab::Owned<SuperBlk> secondary = kab::AllocRecord<SuperBlk>();
  if (secondary == nullptr) {
    kab::Log("%s: Error: Super block allocation failed\n", ctx->uuidText);
    return;
  }
  if (DDPReadSecSuperBlk(ctx, secondary.get(), nullptr) != KAB_OK) {
    kab::Log("%s: Error: Failed to read dedupe secondary super block\n", ctx->uuidText);
    return;
  }
  const auto word = [&](uint32_t first, uint32_t second, const char* line) {
    if (first != second) kab::Log(line, ctx->uuidText, first, second);
  };
  const auto wide = [&](uint64_t first, uint64_t second, const char* line) {
    if (first != second) kab::Log(line, ctx->uuidText, first, second);
  };
  const SuperBlk& a = *primary;
  const SuperBlk& b = *secondary;
  word(a.hdr.magic, b.hdr.magic, "%s: MetaError: Mismatch between SB header magic 0x%x, 0x%x\n");
  word(a.hdr.blkType, b.hdr.blkType, "%s: MetaError: Mismatch between SB header blkType%u, %u\n");
  word(a.hdr.checksum, b.hdr.checksum, "%s: MetaError: Mismatch between SB header checksum%u, %u\n");
  word(a.flags, b.flags, "%s: MetaError: Mismatch between flags %d, %d\n");
  wide(a.txnSBSize, b.txnSBSize, "%s: MetaError: Mismatch in txnSBSize %lu, %lu\n");
  wide(a.resrvSize, b.resrvSize, "%s: MetaError: Mismatch in resrvSize %lu, %lu\n");
  wide(a.bmapSize, b.bmapSize, "%s: MetaError: Mismatch in bmapSize %lu, %lu\n");
  wide(a.xmapSize, b.xmapSize, "%s: MetaError: Mismatch in xmapSize %lu, %lu\n");
  wide(a.metaBmapHmapSize, b.metaBmapHmapSize, "%s: MetaError: Mismatch in metaBmapHmapSize %lu, %lu\n");
  wide(a.metaBmapBmapSize, b.metaBmapBmapSize, "%s: MetaError: Mismatch in metaBmapBmapSize %lu, %lu\n");
  wide(a.metaBmapXmapSize, b.metaBmapXmapSize, "%s: MetaError: Mismatch in metaBmapXmapSize %lu, %lu\n");
  wide(a.hmapSize, b.hmapSize, "%s: MetaError: Mismatch in hmapSize %lu, %lu\n");
  wide(a.dataSize, b.dataSize, "%s: MetaError: Mismatch in dataSize %lu, %lu\n");
  word(a.ddpRatio, b.ddpRatio, "%s: MetaError: Mismatch between ddpRatio %d, %d\n");
  word(a.hmapBlksPerMetaMapBit, b.hmapBlksPerMetaMapBit,
       "%s: MetaError: Mismatch between hmapBlksPerMetaMapBit %d, %d\n");
  word(a.bmapBlksPerMetaMapBit, b.bmapBlksPerMetaMapBit,
       "%s: MetaError: Mismatch between bmapBlksPerMetaMapBit %d, %d\n");
  word(a.xmapBlksPerMetaMapBit, b.xmapBlksPerMetaMapBit,
       "%s: MetaError: Mismatch between xmapBlksPerMetaMapBit %d, %d\n");
  wide(a.softReserveSize, b.softReserveSize, "%s: MetaError: Mismatch in softReserveSize %lu, %lu\n");
  wide(a.expansion1Size, b.expansion1Size, "%s: MetaError: Mismatch in expansion1Size %lu, %lu\n");
  // Two fields each share a name.
  wide(a.expansion2[0], b.expansion2[0], "%s: MetaError: Mismatch in expansion2Size %lu, %lu\n");
  wide(a.expansion2[1], b.expansion2[1], "%s: MetaError: Mismatch in expansion2Size %lu, %lu\n");
  wide(a.expansion3[0], b.expansion3[0], "%s: MetaError: Mismatch in expansion3Size %lu, %lu\n");
  wide(a.expansion3[1], b.expansion3[1], "%s: MetaError: Mismatch in expansion3Size %lu, %lu\n");
}

void DDPInitKnownHash(uint8_t* out) {
  static constexpr uint8_t kZeroBlk[kab::ddp::kBlockSize] = {};
  DDPSHA1Ctx sha1;
  DDPSHA1Init(&sha1);
  DDPSHA1Update(&sha1, kZeroBlk, sizeof kZeroBlk);
  DDPSHA1Final(out, &sha1);
}
