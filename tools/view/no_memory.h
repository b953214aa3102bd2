#pragma once
// Want of memory, told from the library's lines: where a call gives no status, they are all there is.

#include <string_view>

namespace tool {

inline bool TellsOfNoMemory(std::string_view line) {
  for (const char* part : {"Failed to allocate", "Cannot allocate memory", "Out of memory", "allocation failed",
                           "Failed to create exclusive lock", "Failed to init decompression context",
                           "Failed to init compression context"}) {
    if (line.find(part) != std::string_view::npos) return true;
  }
  return false;
}

}  // namespace tool
