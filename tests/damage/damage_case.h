#pragma once
// What is done to a seed: changed bytes, and perhaps a cut. Undoing needs no more than the seed's own bytes.

#include <string>
#include <vector>

#include "damage/seed.h"

namespace damage {

struct Patch {
  size_t file;
  uint64_t offset;
  Bytes bytes;
};

struct Case {
  std::string name;
  std::vector<Patch> patches;
  /// With `cut`, the file is that long.
  bool cut = false;
  size_t cutFile = 0;
  uint64_t cutSize = 0;
  /// `kab check` must not call the group clean.
  bool mustBeFound = false;
};

/// Every case of a seed, always in the same order.
std::vector<Case> MakeCases(const Seed& seed);

void Apply(const Seed& seed, const Case& damaged);
void Undo(const Seed& seed, const Case& damaged);

}  // namespace damage
