#pragma once
// The one table of exit statuses.

namespace tool {

enum class Exit {
  kClean = 0,
  kError = 1,             // I/O or any other run-time error, an interruption included
  kUsage = 2,             // nothing was tried
  kDamage = 3,            // damage found, the output is complete
  kDamageIncomplete = 4,  // damage found, the output is incomplete
  kNotOurs = 5,           // a disk in use, or not of this group
  kDigest = 6,            // a dump's digest does not match
  kMemory = 8
};

/// The one to report of two.
inline Exit Worse(Exit a, Exit b) {
  constexpr auto rank = [](Exit code) {
    switch (code) {
      case Exit::kClean:
        return 0;
      case Exit::kDamage:
        return 1;
      case Exit::kDamageIncomplete:
        return 2;
      case Exit::kDigest:
        return 3;
      case Exit::kUsage:
        return 4;
      case Exit::kNotOurs:
        return 5;
      case Exit::kError:
        return 6;
      case Exit::kMemory:
        return 7;
    }
    return 6;
  };
  return rank(a) < rank(b) ? b : a;
}

struct ExitMeaning {
  Exit code;
  const char* text;
};

inline constexpr ExitMeaning kExitTable[] = {
    {Exit::kClean, "clean"},
    {Exit::kError, "I/O or run-time error, or interrupted"},
    {Exit::kUsage, "usage"},
    {Exit::kDamage, "damage found, output complete"},
    {Exit::kDamageIncomplete, "damage found, output incomplete"},
    {Exit::kNotOurs, "disk in use, or not of this group"},
    {Exit::kDigest, "dump digest mismatch"},
    {Exit::kMemory, "out of memory"},
};

}  // namespace tool
