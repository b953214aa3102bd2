#include "view.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "failure.h"
#include "kab/indexes.h"
#include "kab/ssdlog.h"

namespace tool {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kPiece = 1 << 20;
constexpr uint64_t kNowhere = ~uint64_t{0};

class DiskView : public View {
 public:
  DiskView(KABDiskCtx* disk, uint64_t size) : disk_(disk) { size_ = size; }

  uint32_t Read(void* buffer, uint32_t length, uint64_t offset) override {
    return KABPlogRead(disk_, buffer, length, offset);
  }

 private:
  KABDiskCtx* disk_;
};

// What the log holds of a component is newer than its map.
class ComponentView : public View {
 public:
  ComponentView(DiskGroup& group, const Component& component)
      : component_(component), handle_(OpenComponent(group, component.vdisk.uuid)) {
    whole_ = ForEachExtent(component_, [this](const OrloExtent& extent) {
               size_ = (extent.logicalSectors + extent.sectorCount) * 512;
             }) == KAB_OK;
    ForEachLogged(0, kNowhere, [this](const ZOLTLbaRange& range) {
      size_ = std::max(size_, range.start + range.length);
      return KAB_OK;
    });
  }

  uint32_t Read(void* buffer, uint32_t length, uint64_t offset) override {
    auto* bytes = static_cast<uint8_t*>(buffer);
    const uint64_t start = offset / kBlock * kBlock;
    const uint64_t end = (offset + length + kBlock - 1) / kBlock * kBlock;
    uint32_t status = KAB_OK;
    if (start == offset && end == offset + length) {
      status = ReadBlocks(bytes, start, end);
    } else {
      std::vector<uint8_t> blocks(end - start);
      status = ReadBlocks(blocks.data(), start, end);
      std::memcpy(bytes, blocks.data() + (offset - start), length);
    }
    if (status != KAB_OK) return status;
    return ForEachLogged(offset, offset + length, [&](const ZOLTLbaRange& range) {
      const uint64_t from = std::max(range.start, offset);
      const uint64_t to = std::min(range.start + range.length, offset + length);
      return KABRead(handle_->ctx, bytes + (from - offset), static_cast<uint32_t>(to - from),
                     static_cast<int64_t>(handle_->ctx->dataOffset + range.address + (from - range.start)));
    });
  }

  void ForEachRun(uint64_t offset, uint64_t length, const TakeRun& take) override {
    const uint64_t end = offset + length;
    uint64_t at = offset;  // what lies before was taken
    enum Kind { kData, kHole, kBeyond };
    const auto upTo = [&](uint64_t to, Kind kind) {
      to = std::min(to, end);
      if (to <= at) return;
      const bool logged = kind != kData && IsLogged(at, to);
      take({at, to - at, kind == kHole && !logged, kind == kBeyond && !logged});
      at = to;
    };
    const uint32_t status =
        ForEachExtent(component_, offset / kBlock, (end + kBlock - 1) / kBlock, [&](const OrloExtent& extent) {
          const uint64_t start = extent.logicalSectors * 512;
          const uint64_t bytes = extent.sectorCount * 512;
          const bool hole = extent.physicalSectors == kNowhere;
          const uint64_t disk = component_.disk->usableSize;
          const uint64_t room = disk - std::min(disk, extent.physicalSectors * 512);
          upTo(start, kHole);
          upTo(start + (hole ? bytes : std::min(bytes, room)), hole ? kHole : kData);
          upTo(start + bytes, kBeyond);
        });
    upTo(end, status == KAB_OK ? kHole : kData);
  }

 private:
  uint32_t ReadBlocks(uint8_t* buffer, uint64_t start, uint64_t end) {
    if (!component_.vdisk.present) {
      std::memset(buffer, 0, end - start);
      return KAB_OK;
    }
    return OrloReadComponentPba(component_.disk, component_.vdisk.mapBlock, buffer, start,
                                static_cast<uint32_t>(end - start));
  }

  // Calls `take` for what the log holds within [start, end) until it returns a status other than 0.
  uint32_t ForEachLogged(uint64_t start, uint64_t end, const std::function<uint32_t(const ZOLTLbaRange&)>& take) const {
    if (handle_->compState == nullptr) return KAB_OK;
    ZOLTLbaTable* table = &handle_->compState->lbaTable;
    ZOLTLbaTableCursor cursor;
    uint32_t status = KAB_OK;
    for (const ZOLTLbaRange* range = ZOLTLbaTable_Find(table, start, &cursor);
         status == KAB_OK && range != nullptr && range->start < end; range = ZOLTLbaTable_Next(table, &cursor)) {
      status = take(*range);
    }
    return status;
  }

  bool IsLogged(uint64_t start, uint64_t end) const {
    bool logged = false;
    ForEachLogged(start, end, [&logged](const ZOLTLbaRange&) {
      logged = true;
      return uint32_t{KAB_END_OF_LOG};  // one is enough
    });
    return logged;
  }

  Component component_;
  OpenedComponent handle_;
};

}  // namespace

void View::ForEachRun(uint64_t offset, uint64_t length, const TakeRun& take) { take({offset, length, false, false}); }

void ReadAround(View& view, uint8_t* buffer, uint64_t length, uint64_t offset,
                const std::function<void(uint64_t offset, uint64_t length, uint32_t status)>& bad) {
  // In pieces that end at multiples of `step`; one that fails is taken block by block.
  const auto read = [&](auto&& self, uint64_t from, uint64_t to, uint64_t step) -> void {
    for (uint64_t at = from, next; at < to; at = next) {
      next = std::min(to, at / step * step + step);
      const uint32_t status = view.Read(buffer + (at - offset), static_cast<uint32_t>(next - at), at);
      if (status == KAB_OK) continue;
      if (step != kBlock && next - at > kBlock) {
        self(self, at, next, kBlock);
        continue;
      }
      std::memset(buffer + (at - offset), 0, next - at);
      bad(at, next - at, status);
    }
  };
  read(read, offset, offset + length, kPiece);
}

uint64_t LogicalSize(const KABDiskCtx& disk) {
  const uint8_t* superBlk = disk.dedupCtx.superBlk;
  if (superBlk == nullptr || disk.group == nullptr) {
    throw Failure(Exit::kUsage, "--logical: the disk has no dedup layer, or is not attached to its group");
  }
  const auto field = [superBlk](size_t at) {
    uint64_t value = 0;
    for (size_t i = 8; i-- > 0;) value = value << 8 | superBlk[at + i];
    return value;
  };
  constexpr size_t kXmapSizeAt = 156;
  constexpr size_t kExpansionAt = 261;
  constexpr uint64_t kMostBlks = INT64_MAX / (225 * 4096) / 2;
  return (std::min(field(kXmapSizeAt), kMostBlks) + std::min(field(kExpansionAt) / 2, kMostBlks)) * 225 * 4096;
}

std::unique_ptr<View> ViewOfDisk(KABDiskCtx* disk) {
  if (disk->group == nullptr) {
    throw Failure(Exit::kUsage, fmt::format("{}: not a capacity disk of the group", disk->path));
  }
  const uint64_t size = disk->dedupCtx.superBlk != nullptr ? LogicalSize(*disk) : disk->usableSize;
  return std::make_unique<DiskView>(disk, size);
}

std::unique_ptr<View> ViewOfComponent(DiskGroup& group, const Component& component) {
  return std::make_unique<ComponentView>(group, component);
}

}  // namespace tool
