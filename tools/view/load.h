#pragma once

// Fields of what lies on a disk, as bytes in the order of this machine's.

#include <cstdint>
#include <cstring>

namespace tool {

/// The value that begins at `bytes`, aligned or not; all of it must be there.
template <class T>
T Load(const uint8_t* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

}  // namespace tool
