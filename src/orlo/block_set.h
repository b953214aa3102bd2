#pragma once
// A set of block numbers, for walks that visit a block once.

#include <cstdint>

#include "core/frame/memory.h"

namespace kab::orlo {

class BlockSet {
 public:
  bool Contains(uint64_t number) const { return slots_ && slots_[Find(Entry(number))] != 0; }

  /// False when memory is exhausted.
  bool Insert(uint64_t number) {
    if (2 * (used_ + 1) > size_ && !Grow()) return false;
    uint64_t& slot = slots_[Find(Entry(number))];
    if (slot == 0) ++used_;
    slot = Entry(number);
    return true;
  }

 private:
  /// What stands for a number: 0 is a free slot, and all ones, no block, must not wrap to it.
  static uint64_t Entry(uint64_t number) { return number == UINT64_MAX ? number : number + 1; }

  /// The slot that holds the entry, or the free one where it belongs.
  uint64_t Find(uint64_t entry) const {
    uint64_t at = (entry * 0x9e3779b97f4a7c15) >> shift_;
    while (slots_[at] != 0 && slots_[at] != entry) at = (at + 1) & (size_ - 1);
    return at;
  }

  bool Grow() {
    const uint64_t formerSize = size_;
    auto former = std::move(slots_);
    const uint64_t size = formerSize != 0 ? 2 * formerSize : 1ULL << (64 - kFirstShift);
    slots_.reset(static_cast<uint64_t*>(KABAlloc(size * sizeof(uint64_t))));
    if (!slots_) {
      slots_ = std::move(former);
      return false;
    }
    shift_ = formerSize != 0 ? shift_ - 1 : kFirstShift;
    size_ = size;
    for (uint64_t i = 0; i < formerSize; ++i) {
      if (former[i] != 0) slots_[Find(former[i])] = former[i];
    }
    return true;
  }

  static constexpr uint32_t kFirstShift = 56;

  Owned<uint64_t[]> slots_;  // entries, 0 for a free slot; at most half of them are taken
  uint64_t size_ = 0;
  uint64_t used_ = 0;
  uint32_t shift_ = kFirstShift;
};

}  // namespace kab::orlo
