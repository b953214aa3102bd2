#include "damage/damage_case.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <stdexcept>

#include "sample/checksum.h"
#include "sample/log_image.h"

namespace damage {
namespace {

constexpr uint64_t kBlock = 4096;

/// Changes to one seed, in memory until they are asked for; blocks of 4096 bytes.
class Change {
 public:
  explicit Change(const Seed& seed) : seed_(seed) {}

  void Put(size_t file, uint64_t offset, std::span<const uint8_t> bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) {
      const uint64_t at = offset + i;
      if (at >= seed_.files[file].bytes.size()) return;
      BlockAt(file, at)[at % kBlock] = bytes[i];
    }
  }

  /// Makes the blocks at these offsets valid again.
  void MakeValid(Seal seal, size_t file, const std::vector<uint64_t>& places) {
    for (const uint64_t place : places) {
      Bytes& block = BlockAt(file, place);
      if (seal == Seal::kBlock) {
        PutNumber(&block[16], 4, 0);
        PutNumber(&block[16], 4, sample::Crc32c(block));
      } else if (seal == Seal::kCheckpoint) {
        PutNumber(&block[132], 8, sample::MixRecord(block));
      } else if (seal == Seal::kLogChain) {
        SealChain(file, place / kBlock * kBlock);
      }
    }
  }

  std::vector<Patch> Patches() const {
    std::vector<Patch> patches;
    for (const auto& [key, block] : blocks_) {
      const Bytes& whole = seed_.files[key.first].bytes;
      const auto old = whole.begin() + static_cast<ptrdiff_t>(key.second);
      size_t first = 0;
      size_t end = block.size();
      while (first < end && block[first] == old[static_cast<ptrdiff_t>(first)]) ++first;
      while (end > first && block[end - 1] == old[static_cast<ptrdiff_t>(end - 1)]) --end;
      if (first == end) continue;
      patches.push_back({key.first,
                         key.second + first,
                         {block.begin() + static_cast<ptrdiff_t>(first), block.begin() + static_cast<ptrdiff_t>(end)}});
    }
    return patches;
  }

 private:
  Bytes& BlockAt(size_t file, uint64_t offset) {
    const uint64_t start = offset / kBlock * kBlock;
    const auto [found, fresh] = blocks_.try_emplace({file, start});
    if (fresh) {
      const Bytes& whole = seed_.files[file].bytes;
      const uint64_t end = std::min<uint64_t>(start + kBlock, whole.size());
      found->second.assign(whole.begin() + static_cast<ptrdiff_t>(start), whole.begin() + static_cast<ptrdiff_t>(end));
    }
    return found->second;
  }

  // A block names the checksum of the one before it, so that all behind must follow.
  void SealChain(size_t file, uint64_t place) {
    for (const std::vector<uint64_t>& chain : seed_.chains) {
      auto at = std::find(chain.begin(), chain.end(), place);
      for (uint64_t previous = 0; at != chain.end(); ++at) {
        Bytes& block = BlockAt(file, *at);
        if (previous != 0) PutNumber(&block[32], 8, previous);
        previous = sample::MixBlock(block);
        PutNumber(&block[56], 8, previous);
      }
    }
  }

  const Seed& seed_;
  std::map<std::pair<size_t, uint64_t>, Bytes> blocks_;
};

std::vector<std::pair<std::string, Bytes>> ValuesOf(const Field& field, const Bytes& original,
                                                    const std::vector<uint64_t>& borders) {
  std::vector<std::pair<std::string, Bytes>> values = {{"zero", Bytes(field.width)},
                                                       {"ones", Bytes(field.width, 0xFF)}};
  const auto add = [&](const std::string& name, uint64_t value) {
    Bytes bytes(field.width);
    PutNumber(bytes.data(), field.width, value);
    const bool fits = field.width == 8 || value >> (8 * field.width) == 0;
    const bool known =
        std::any_of(values.begin(), values.end(), [&](const auto& have) { return have.second == bytes; });
    if (fits && !known) values.emplace_back(name, bytes);
  };
  if (field.width > 8) {
    values.emplace_back("flipped", original);
    values.back().second[3] ^= 0x10;
  } else {
    const uint64_t mask = field.width == 8 ? ~uint64_t{0} : (uint64_t{1} << (8 * field.width)) - 1;
    const uint64_t old = Number(original, 0, field.width);
    add("one-less", (old - 1) & mask);
    add("one-more", (old + 1) & mask);
    add("top-bit", mask / 2 + 1);
    add("no-top-bit", mask / 2);
    for (const uint64_t border : borders) add(std::to_string(border), border);
  }
  std::erase_if(values, [&](const auto& value) { return value.second == original; });
  return values;
}

Bytes Part(const Seed& seed, size_t file, uint64_t offset, uint64_t length) {
  const Bytes& whole = seed.files[file].bytes;
  const uint64_t end = std::min<uint64_t>(offset + length, whole.size());
  return {whole.begin() + static_cast<ptrdiff_t>(offset), whole.begin() + static_cast<ptrdiff_t>(end)};
}

class Maker {
 public:
  explicit Maker(const Seed& seed) : seed_(seed) {}

  std::vector<Case> Make() {
    for (const Structure& structure : seed_.structures) {
      Fields(structure);
      Contents(structure);
      Cuts(structure);
    }
    for (size_t i = 0; i < seed_.structures.size(); ++i) {
      for (size_t j = 0; j < i; ++j) Swap(seed_.structures[j], seed_.structures[i]);
    }
    for (const auto& chain : seed_.chains) Cycles(chain);
    Noise();
    return std::move(cases_);
  }

 private:
  void Add(const std::string& name, const Change& change, bool mustBeFound = false) {
    std::vector<Patch> patches = change.Patches();
    if (patches.empty()) return;
    cases_.push_back({.name = name, .patches = std::move(patches), .mustBeFound = mustBeFound});
  }

  // Every value of every field, sealed; and one of each as a plain error.
  void Fields(const Structure& structure) {
    for (const Field& field : structure.fields) {
      const std::string name = structure.name + "/" + field.name + "=";
      const Bytes original = Part(seed_, structure.file, structure.places[0] + field.offset, field.width);
      bool plain = structure.seal != Seal::kNone;
      for (const auto& [value, bytes] : ValuesOf(field, original, structure.borders)) {
        Change change(seed_);
        for (const uint64_t place : structure.places) change.Put(structure.file, place + field.offset, bytes);
        if (plain) Add(name + value + "/unsealed", change, structure.checked);
        plain = false;
        change.MakeValid(structure.seal, structure.file, structure.places);
        Add(name + value, change);
      }
    }
  }

  // The structure's own bytes as a whole: gone, worn, torn, another's.
  void Contents(const Structure& structure) {
    const Bytes original = Part(seed_, structure.file, structure.places[0], structure.size);
    const size_t size = original.size();
    std::mt19937_64 random(size);
    Bytes noise(size);
    for (uint8_t& byte : noise) byte = static_cast<uint8_t>(random());
    Bytes torn = original;
    std::fill(torn.begin() + static_cast<ptrdiff_t>(size / 2), torn.end(), uint8_t{0});
    Bytes shifted = original;
    std::rotate(shifted.begin(), shifted.begin() + 1, shifted.end());
    const std::pair<const char*, Bytes> contents[] = {{"zeroed", Bytes(size)},
                                                      {"all-ones", Bytes(size, 0xFF)},
                                                      {"noise", noise},
                                                      {"torn", torn},
                                                      {"shifted", shifted}};
    for (const auto& [name, bytes] : contents) {
      Change change(seed_);
      for (const uint64_t place : structure.places) change.Put(structure.file, place, bytes);
      Add(structure.name + "/" + name + "/unsealed", change);
      change.MakeValid(structure.seal, structure.file, structure.places);
      if (structure.seal != Seal::kNone) Add(structure.name + "/" + name, change);
    }
  }

  void Cuts(const Structure& structure) {
    const uint64_t start = structure.places[0];
    for (const uint64_t size :
         {start, start + 1, start + structure.size / 2, start + structure.size - 1, start + structure.size}) {
      if (size >= seed_.files[structure.file].bytes.size() || !cuts_.insert({structure.file, size}).second) continue;
      cases_.push_back({.name = structure.name + "/cut at " + std::to_string(size),
                        .patches = {},
                        .cut = true,
                        .cutFile = structure.file,
                        .cutSize = size});
    }
  }

  // Two structures of a kind and file change places: each is whole, at a place that is not its own.
  void Swap(const Structure& a, const Structure& b) {
    if (a.file != b.file || a.size != b.size || a.places[0] == b.places[0]) return;
    Change change(seed_);
    change.Put(a.file, a.places[0], Part(seed_, a.file, b.places[0], a.size));
    change.Put(a.file, b.places[0], Part(seed_, a.file, a.places[0], a.size));
    Add(a.name + "<->" + b.name.substr(b.name.find('/') + 1), change);
  }

  // A log whose blocks lead back.
  void Cycles(const std::vector<uint64_t>& chain) {
    for (size_t from = 0; from < chain.size(); from += std::max<size_t>(1, chain.size() / 3)) {
      for (const size_t to : {size_t{0}, from / 2, from}) {
        Change change(seed_);
        Bytes next(8);
        PutNumber(next.data(), 8, (chain[to] - sample::kDataOffset) / kBlock);
        change.Put(0, chain[from] + 16, next);
        change.MakeValid(Seal::kLogChain, 0, {chain[from]});
        Add("chain/block" + std::to_string(from) + " leads to " + std::to_string(to), change);
      }
    }
  }

  // What no table thinks of: a few bytes somewhere in a structure, sealed.
  void Noise() {
    std::mt19937_64 random(1);
    for (int round = 0; round < 40; ++round) {
      const Structure& structure = seed_.structures[random() % seed_.structures.size()];
      Change change(seed_);
      for (uint64_t count = 1 + random() % 4; count != 0; --count) {
        const uint64_t at = random() % structure.size;
        const auto value = static_cast<uint8_t>(random());
        for (const uint64_t place : structure.places) change.Put(structure.file, place + at, {&value, 1});
      }
      change.MakeValid(structure.seal, structure.file, structure.places);
      Add(structure.name + "/noise" + std::to_string(round), change);
    }
  }

  const Seed& seed_;
  std::vector<Case> cases_;
  std::set<std::pair<size_t, uint64_t>> cuts_;
};

class Descriptor {
 public:
  explicit Descriptor(const std::string& path) : fd_(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
    if (fd_ < 0) throw std::runtime_error(path + ": cannot be opened");
  }
  ~Descriptor() { close(fd_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  void Write(uint64_t offset, std::span<const uint8_t> bytes) {
    if (pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(offset)) != static_cast<ssize_t>(bytes.size())) {
      throw std::runtime_error("a seed's file cannot be written");
    }
  }
  void Resize(uint64_t size) {
    if (ftruncate(fd_, static_cast<off_t>(size)) != 0) throw std::runtime_error("a seed's file cannot be resized");
  }

 private:
  int fd_;
};

}  // namespace

std::vector<Case> MakeCases(const Seed& seed) { return Maker(seed).Make(); }

void Apply(const Seed& seed, const Case& damaged) {
  for (const Patch& patch : damaged.patches) Descriptor(seed.files[patch.file].path).Write(patch.offset, patch.bytes);
  if (damaged.cut) Descriptor(seed.files[damaged.cutFile].path).Resize(damaged.cutSize);
}

void Undo(const Seed& seed, const Case& damaged) {
  for (const Patch& patch : damaged.patches) {
    const std::span<const uint8_t> whole = seed.files[patch.file].bytes;
    Descriptor(seed.files[patch.file].path).Write(patch.offset, whole.subspan(patch.offset, patch.bytes.size()));
  }
  if (damaged.cut) {
    const std::span<const uint8_t> whole = seed.files[damaged.cutFile].bytes;
    Descriptor(seed.files[damaged.cutFile].path).Write(damaged.cutSize, whole.subspan(damaged.cutSize));
  }
}

}  // namespace damage
