#pragma once
// Want of memory, told from the library's lines: where a call gives no status, they are all there is.

#include <string_view>

namespace tool {

inline bool TellsOfNoMemory(std::string_view line) {
  for (const char* part :
       {"Failed to alloc", "Cannot allocate memory", "Out of memory", "llocation failed", "alloction failed",
        "Cache initialization failed", "Failed to initialize lbaTable", "Failed to create exclusive lock",
        "Failed to init decompression context", "Failed to init compression context", "Failed to init hash context"}) {
    if (line.find(part) != std::string_view::npos) return true;
  }
  return false;
}

}  // namespace tool
