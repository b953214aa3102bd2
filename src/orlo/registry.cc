// The registry that lists a disk's vdisks.

#include <algorithm>

#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "core/frame/uuid_text.h"
#include "kab/orlo.h"
#include "orlo/block0_format.h"

namespace kab::orlo {
namespace {

constexpr uint64_t kLongestTransfer = 1U << 30U;
constexpr uint64_t kWindow = 16U << 20U;

uint32_t ReadRegistryLength(KABDiskCtx* disk, uint64_t offset, uint64_t* length) {
  RegistryHeader header;
  const uint32_t st = OrloReadData(disk, &header, sizeof header, offset);
  if (st == KAB_OK) *length = header.length;
  return st;
}

/// Searches a registry for a UUID. `Entry` is the layout of its entries.
template <OnDisk Entry>
class RegistrySearch {
 public:
  RegistrySearch(KABDiskCtx* disk, const Block0& block0)
      : disk_(disk), offset_(block0.registryOffset), length_(block0.registryBufferLength) {}

  uint32_t Run(const char* uuidText, void* out) {
    uint64_t stated = 0;
    uint32_t st = ReadRegistryLength(disk_, offset_, &stated);
    if (st != KAB_OK) return ReadFailed(st);
    length_ = std::min(length_, stated);
    // Both lengths are the disk's word: memory is for one window, whatever they say.
    window_ = AllocBytes(std::min(length_, kWindow));
    if (!window_) {
      Log("%s: Error: xLOG registry buffer allocation failed\n", disk_->uuidText);
      return KAB_OUT_OF_MEMORY;
    }
    st = ReadWindow(0);
    if (st != KAB_OK) return st;
    if (uuidText == nullptr || !ParseUuid(uuidText, uuid_)) {
      Log("%s: Error: Invalid uuid specified\n", disk_->uuidText);
      return KAB_GENERAL_FAILURE;
    }
    const le32* count = At<le32>({window_.get(), filled_}, kVdiskCountAt);
    return count == nullptr ? uint32_t{KAB_NOT_FOUND} : Scan(*count, out);
  }

 private:
  uint32_t ReadFailed(uint32_t st) const {
    Log("%s: Error: Orlo xlog 1 registry read failed\n", disk_->uuidText);
    return st;
  }

  uint32_t ReadWindow(uint64_t start) {
    start_ = start;
    filled_ = static_cast<uint32_t>(std::min(length_ - start, kWindow));
    const uint32_t st = OrloReadData(disk_, window_.get(), filled_, offset_ + start);
    return st != KAB_OK ? ReadFailed(st) : st;
  }

  uint32_t Scan(uint32_t count, void* out) {
    uint64_t at = kVdiskEntriesAt;
    for (uint32_t i = 0; i < count && at + sizeof(Entry) <= length_; ++i, at += sizeof(Entry)) {
      if (at + sizeof(Entry) > start_ + filled_) {
        const uint32_t st = ReadWindow(at);
        if (st != KAB_OK) return st;
      }
      const Entry* entry = At<Entry>({window_.get(), filled_}, at - start_);
      if (entry == nullptr) break;
      if (std::memcmp(entry->uuid, uuid_, sizeof uuid_) == 0) {
        std::memcpy(out, entry, sizeof(Entry));
        return KAB_OK;
      }
    }
    return KAB_NOT_FOUND;
  }

  KABDiskCtx* disk_;
  uint64_t offset_;
  uint64_t length_;  // bytes of the registry that are looked at
  Owned<uint8_t[]> window_;
  uint64_t start_ = 0;  // of the window, from the registry's start
  uint32_t filled_ = 0;
  uint8_t uuid_[16] = {};
};

}  // namespace
}  // namespace kab::orlo

using kab::orlo::Block0;

uint32_t OrloReadRegistry(KABDiskCtx* disk, void* buf, uint64_t offset, uint64_t bufLength) {
  uint64_t stated = 0;
  uint32_t st = kab::orlo::ReadRegistryLength(disk, offset, &stated);
  const uint64_t length = std::min(stated, bufLength);
  for (uint64_t done = 0; st == KAB_OK && done < length;) {
    const auto piece = static_cast<uint32_t>(std::min(length - done, kab::orlo::kLongestTransfer));
    st = OrloReadData(disk, static_cast<uint8_t*>(buf) + done, piece, offset + done);
    done += piece;
  }
  return st;
}

uint32_t OrloReadVdisk(KABDiskCtx* disk, const void* desc, const char* uuidText, void* out) {
  return kab::orlo::RegistrySearch<kab::orlo::VdiskEntryV6>(disk, kab::Load<Block0>(desc)).Run(uuidText, out);
}

uint32_t OrloReadVdiskV4Plus(KABDiskCtx* disk, const void* desc, const char* uuidText, void* out) {
  return kab::orlo::RegistrySearch<kab::orlo::VdiskEntry>(disk, kab::Load<Block0>(desc)).Run(uuidText, out);
}
