// The units of a dedup set: what the bitmaps call in use against what translation maps and hash maps name.
//
// Memory is four bits a unit. A set with more units than the bound allows is judged window by window, the maps read
// once for each.

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>

#include "check_dedup.h"

namespace tool {
namespace {

constexpr uint64_t kBitsPerWord = 64;
constexpr uint64_t kWordsPerBlock = kBitsPerBitmapBlock / kBitsPerWord;
static_assert(kBitsPerBitmapBlock % kBitsPerWord == 0);
constexpr uint64_t kBitsPerUnit = 4;
constexpr uint32_t kHashSize = 20;
constexpr uint32_t kPbnAt = 24;
constexpr uint64_t kPbnUnitMask = (uint64_t{1} << 40) - 1;

// Units of a member that one window spans, a multiple of what a bitmap block holds.
uint64_t WindowUnits(const Check& check, const DedupSet& set) {
  uint64_t most = 0;
  for (const DedupArea& area : set.members) most = std::max(most, area.endUnit());
  const uint64_t affordable = check.memory / set.members.size() * 8 / kBitsPerUnit / kBitsPerBitmapBlock;
  const uint64_t wanted = (most + kBitsPerBitmapBlock - 1) / kBitsPerBitmapBlock;
  return std::max<uint64_t>(1, std::min(affordable, wanted)) * kBitsPerBitmapBlock;
}

class Bits {
 public:
  explicit Bits(uint64_t count) : words_(count / kBitsPerWord) {}

  bool Test(uint64_t bit) const { return (words_[bit / kBitsPerWord] >> (bit % kBitsPerWord) & 1) != 0; }
  /// Returns what it was before.
  bool Set(uint64_t bit) {
    uint64_t& word = words_[bit / kBitsPerWord];
    const uint64_t mask = uint64_t{1} << (bit % kBitsPerWord);
    const bool before = (word & mask) != 0;
    word |= mask;
    return before;
  }
  uint64_t Word(uint64_t index) const { return words_[index]; }
  void Clear() { std::fill(words_.begin(), words_.end(), 0); }

 private:
  std::vector<uint64_t> words_;
};

// How many of something, and where the first is.
struct Tally {
  uint64_t count = 0;
  uint64_t first = 0;

  void Add(uint64_t at) {
    if (count++ == 0) first = at;
  }
  void AddWord(uint64_t word, uint64_t at) {
    if (word == 0) return;
    if (count == 0) first = at + static_cast<uint64_t>(std::countr_zero(word));
    count += static_cast<uint64_t>(std::popcount(word));
  }
};

// What is known of a member's units within the window.
struct Member {
  Member(const DedupArea& ofDisk, uint64_t window)
      : area(&ofDisk), first(window), second(window), shared(window), hashed(window) {}

  const DedupArea* area;
  Bits first;   // some block's first or only unit
  Bits second;  // some raw block's second unit
  Bits shared;  // the first unit of several blocks
  Bits hashed;  // named by a hash entry

  Tally unreferenced;     // over all windows
  uint64_t hashOnly = 0;  // units that only a hash entry names

  void Clear() {
    for (Bits* bits : {&first, &second, &shared, &hashed}) bits->Clear();
  }
};

class UnitCheck {
 public:
  UnitCheck(Check& check, const DedupSet& set, Progress& progress)
      : check_(check),
        set_(set),
        progress_(progress),
        window_(WindowUnits(check, set)),
        placesKnown_(set.group && set.whole) {
    for (const DedupArea& area : set.members) {
      members_.emplace_back(area, window_);
      end_ = std::max(end_, area.endUnit());
      hashMaps_ = hashMaps_ && area.hasHashMap();
      // Hashes are dealt out over the slots from the first on.
      placesKnown_ = placesKnown_ && static_cast<uint64_t>(area.disk()->devIdx) < set.members.size();
    }
  }

  void Run() {
    do {
      for (Member& member : members_) member.Clear();
      for (const Member& member : members_) {
        ReadMap(member, DDP_BLK_XMAP, [&](const DedupBlock& block) { TakeXmap(*member.area, block); });
        ReadMap(member, DDP_BLK_HASH_MAP, [&](const DedupBlock& block) { TakeHashMap(*member.area, block); });
      }
      for (Member& member : members_) CompareBitmap(member);
      start_ += window_;
      firstPass_ = false;
    } while (start_ < end_);
    for (const Member& member : members_) TellUnreferenced(member);
  }

 private:
  // Calls `take` for what can be believed of the regions of a type.
  template <class Take>
  void ReadMap(const Member& member, uint32_t type, const Take& take) {
    for (const DedupRegion& region : member.area->regions()) {
      if (region.type != type) continue;
      if (!member.area->Fits(region)) {
        Hide(type);
        continue;
      }
      ForEachBlock(*member.area, region, 0, region.size, firstPass_, [&](const DedupBlock& block) {
        if (IsSound(*member.area, region, block)) {
          take(block);
        } else {
          Hide(type);
        }
        progress_.Add(kDedupBlock);
      });
    }
  }

  bool IsSound(const DedupArea& area, const DedupRegion& region, const DedupBlock& block) {
    if (firstPass_) return CheckBlock(check_, area, region, block);
    return block.bytes != nullptr && (DDPIsValidBlkHdr(area.disk(), block.bytes, region.type, block.index) != 0 ||
                                      (region.type == DDP_BLK_XMAP && IsBlank(block.bytes)));
  }

  // Something may refer to units without our seeing it.
  void Hide(uint32_t type) {
    (type == DDP_BLK_XMAP ? xmapHidden_ : hashHidden_) = true;
    check_.complete = false;
  }

  Member* MemberOf(uint64_t devIdx) {
    if (!set_.group) return &members_[0];
    for (Member& member : members_) {
      if (static_cast<uint64_t>(member.area->disk()->devIdx) == devIdx) return &member;
    }
    return nullptr;
  }

  bool InWindow(uint64_t unit) const { return unit >= start_ && unit - start_ < window_; }
  static bool IsDataUnit(const DedupArea& area, uint64_t unit) {
    return unit >= area.firstUnit() && unit < area.endUnit();
  }

  void TakeXmap(const DedupArea& from, const DedupBlock& block) {
    if (IsBlank(block.bytes)) return;
    Tally outside;
    Tally crossed;
    for (uint32_t i = 0; i < kXmapEntries; ++i) {
      const DedupRecord record = RecordAt(block.bytes, i);
      Member* to = MemberOf(record.devIdx);
      if (!record.mapped()) {
        // A reader refuses the index before it sees that nothing is mapped.
        if (set_.whole && set_.group && record.devIdx >= check_.group.ssd()->openDiskCount) outside.Add(i);
      } else if (to == nullptr) {
        if (set_.whole) outside.Add(i);
      } else {
        const uint64_t first = to->area->UnitOf(record.unit1);
        const auto second =
            record.raw() ? std::optional<uint64_t>(to->area->UnitOf(record.unit2)) : std::optional<uint64_t>();
        if (!IsDataUnit(*to->area, first) || (second && !IsDataUnit(*to->area, *second))) {
          outside.Add(i);
        } else if (!Take(*to, first, second)) {
          crossed.Add(i);
        }
      }
    }
    const auto tell = [&](const Tally& tally, const char* code, const char* what) {
      if (tally.count == 0) return;
      check_.Damage(code, *from.disk(), block.offset + kXmapHeader + tally.first * kXmapEntrySize,
                    fmt::format("{} entries in block {} of the translation map {}, the first is that of logical block "
                                "{}",
                                tally.count, block.index, what, block.index * kXmapEntries + tally.first));
    };
    if (firstPass_) {
      tell(outside, "DDP-XMAP-REFERENCE", "name units outside the data region or a member that is not there");
    }
    tell(crossed, "DDP-UNIT-CROSSED", "name units that other blocks use in another way");
  }

  // False when another block uses the units in another way: as its other half, or with another half beside it.
  bool Take(Member& to, uint64_t first, std::optional<uint64_t> second) const {
    bool consistent = true;
    bool knownFirst = false;
    if (InWindow(first)) {
      knownFirst = to.first.Set(first - start_);
      if (knownFirst) to.shared.Set(first - start_);
      consistent = !to.second.Test(first - start_);
    }
    if (second && InWindow(*second)) {
      const bool knownSecond = to.second.Set(*second - start_);
      consistent = consistent && !to.first.Test(*second - start_);
      if (InWindow(first)) consistent = consistent && knownFirst == knownSecond;
    }
    return consistent;
  }

  void TakeHashMap(const DedupArea& from, const DedupBlock& block) {
    Tally outside;
    Tally misplaced;
    for (uint32_t i = 0; i < kHashEntries; ++i) {
      const uint8_t* entry = block.bytes + kHashMapHeader + i * DDP_HASH_ENTRY_SIZE;
      uint64_t pbn;
      std::memcpy(&pbn, entry + kPbnAt, sizeof pbn);
      if (pbn == 0) continue;
      if (firstPass_ && !IsInPlace(from, block.index, entry)) misplaced.Add(i);
      Member* to = MemberOf(pbn >> 44U);
      if (to == nullptr && !set_.whole) continue;
      const uint64_t unit = to != nullptr ? to->area->UnitOf(pbn & kPbnUnitMask) : 0;
      if (to == nullptr || (pbn >> 40U & 15U) != DDP_BLK_DATA || !IsDataUnit(*to->area, unit)) {
        outside.Add(i);
      } else if (InWindow(unit)) {
        to->hashed.Set(unit - start_);
      }
    }
    if (!firstPass_) return;
    const auto tell = [&](const Tally& tally, const char* code, const char* what) {
      if (tally.count == 0) return;
      check_.Damage(code, *from.disk(), block.offset + kHashMapHeader + tally.first * DDP_HASH_ENTRY_SIZE,
                    fmt::format("{} entries in block {} of the hash map {}, the first is entry {}", tally.count,
                                block.index, what, tally.first));
    };
    tell(outside, "DDP-HASH-REFERENCE", "name no unit of the data region");
    tell(misplaced, "DDP-HASH-PLACE", "belong in another block, where a look-up goes");
  }

  // A compressed disk's one entry has a fixed place; without all members nobody knows where an entry belongs.
  bool IsInPlace(const DedupArea& from, uint64_t index, const uint8_t* entry) const {
    if (!placesKnown_) return true;
    uint8_t hash[kHashSize];
    std::memcpy(hash, entry, sizeof hash);
    uint32_t device = 0;
    uint64_t block = 0;
    uint64_t global = 0;
    DDPGetHashBlockFromHash(check_.group.ssd(), hash, &device, &block, &global);
    return device == static_cast<uint32_t>(from.disk()->devIdx) && block == index;
  }

  void CompareBitmap(Member& member) {
    const DedupArea& area = *member.area;
    for (const DedupRegion& region : area.regions()) {
      if (region.type != DDP_BLK_BITMAP) continue;
      const uint64_t first = std::min(start_ / kBitsPerBitmapBlock, region.size);
      // The last window takes the blocks along whose bits lie behind the last unit.
      const bool last = start_ + window_ >= end_;
      const uint64_t end = last ? region.size : std::min((start_ + window_) / kBitsPerBitmapBlock, region.size);
      if (!area.Fits(region)) continue;
      ForEachBlock(area, region, first, end, true, [&](const DedupBlock& block) {
        progress_.Add(kDedupBlock);
        if (CheckBlock(check_, area, region, block)) {
          CompareBlock(member, block);
        } else {
          check_.complete = false;
        }
      });
    }
  }

  void CompareBlock(Member& member, const DedupBlock& block) {
    const DedupArea& area = *member.area;
    Tally free;
    Tally hashedFree;
    Tally shared;
    for (uint64_t i = 0; i < kWordsPerBlock; ++i) {
      const uint64_t unit = (block.index * kWordsPerBlock + i) * kBitsPerWord;
      if (unit >= area.endUnit()) break;
      const uint64_t at = (unit - start_) / kBitsPerWord;
      uint64_t inUse;
      std::memcpy(&inUse, block.bytes + kBitmapHeader + 8 * i, sizeof inUse);
      const uint64_t named = member.first.Word(at) | member.second.Word(at);
      const uint64_t hashed = member.hashed.Word(at);
      free.AddWord(named & ~inUse, unit);
      hashedFree.AddWord(hashed & ~named & ~inUse, unit);
      shared.AddWord(member.shared.Word(at) & ~hashed, unit);
      member.hashOnly += static_cast<uint64_t>(std::popcount(hashed & ~named));
      member.unreferenced.AddWord(inUse & ~named & ~hashed & DataUnits(area, unit), unit);
    }
    Tell(free, Severity::kDamage, "DDP-UNIT-FREE", area, block, "are free, and logical blocks refer to them");
    Tell(hashedFree, Severity::kDamage, "DDP-HASH-FREE", area, block, "are free, and hash entries name them");
    if (hashMaps_ && set_.whole && !hashHidden_) {
      Tell(shared, Severity::kWarning, "DDP-UNIT-SHARED", area, block,
           "hold several logical blocks' contents, and no hash entry names them");
    }
  }

  // The bits of a word that stand for units which hold data: not the map's expansion, nor what lies behind the disk.
  static uint64_t DataUnits(const DedupArea& area, uint64_t unit) {
    uint64_t mask = ~uint64_t{0};
    if (area.firstUnit() > unit) {
      const uint64_t before = area.firstUnit() - unit;
      mask = before >= kBitsPerWord ? 0 : mask << before;
    }
    const uint64_t there = area.endUnit() - unit;
    if (there < kBitsPerWord) mask &= (uint64_t{1} << there) - 1;
    return mask;
  }

  void Tell(const Tally& tally, Severity severity, const char* code, const DedupArea& area, const DedupBlock& block,
            const char* what) {
    if (tally.count == 0) return;
    check_.findings.Add({code,
                         severity,
                         area.disk()->uuidText,
                         area.UnitOffset(tally.first),
                         {},
                         {},
                         fmt::format("{} units of bitmap block {} {}, the first is unit {}", tally.count, block.index,
                                     what, tally.first)});
  }

  // A hash entry names the first unit of its block alone: once no logical block refers to that, a second one may still
  // lie somewhere, rightly in use.
  void TellUnreferenced(const Member& member) {
    const Tally& tally = member.unreferenced;
    if (tally.count == 0 || !set_.whole || xmapHidden_ || hashHidden_) return;
    const bool explained = tally.count <= member.hashOnly;
    check_.findings.Add({"DDP-UNIT-UNREFERENCED",
                         explained ? Severity::kInfo : Severity::kWarning,
                         member.area->disk()->uuidText,
                         member.area->UnitOffset(tally.first),
                         {},
                         {},
                         fmt::format("{} units are in use and nothing refers to them, the first is unit {}; up to {} "
                                     "may be second halves of blocks that only the hash map knows",
                                     tally.count, tally.first, member.hashOnly)});
  }

  Check& check_;
  const DedupSet& set_;
  Progress& progress_;
  uint64_t window_;
  uint64_t start_ = 0;  // of the window
  uint64_t end_ = 0;
  bool firstPass_ = true;  // blocks are judged for themselves
  bool xmapHidden_ = false;
  bool hashHidden_ = false;
  bool hashMaps_ = true;
  bool placesKnown_;  // where a hash entry belongs
  std::vector<Member> members_;
};

}  // namespace

uint64_t UnitPasses(const Check& check, const DedupSet& set) {
  uint64_t most = 0;
  for (const DedupArea& area : set.members) most = std::max(most, area.endUnit());
  const uint64_t window = WindowUnits(check, set);
  return std::max<uint64_t>(1, (most + window - 1) / window);
}

void CheckUnits(Check& check, const DedupSet& set, Progress& progress) { UnitCheck(check, set, progress).Run(); }

}  // namespace tool
