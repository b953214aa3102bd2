#pragma once
// The two doors to raw bytes: nothing is laid over a buffer that does not hold it.

#include <boost/endian/arithmetic.hpp>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>

namespace kab {

using Bytes = std::span<const uint8_t>;

using le16 = boost::endian::little_uint16_t;
using le32 = boost::endian::little_uint32_t;
using le64 = boost::endian::little_uint64_t;

/// May be laid over raw bytes: no padding to align, no constructor to run.
template <class T>
concept OnDisk = std::is_trivially_copyable_v<T> && std::is_standard_layout_v<T> && alignof(T) == 1;

/// The T at `offset`, or null when it does not fit there.
template <OnDisk T>
const T* At(Bytes bytes, uint64_t offset) {
  if (offset > bytes.size() || sizeof(T) > bytes.size() - offset) return nullptr;
  return reinterpret_cast<const T*>(bytes.data() + offset);
}

/// `count` Ts at `offset`, or nothing when they do not fit there.
template <OnDisk T>
std::optional<std::span<const T>> ArrayAt(Bytes bytes, uint64_t offset, uint64_t count) {
  // Divided, not multiplied: count is the disk's word, and count * sizeof(T) could wrap.
  if (offset > bytes.size() || count > (bytes.size() - offset) / sizeof(T)) return std::nullopt;
  return std::span(reinterpret_cast<const T*>(bytes.data() + offset), count);
}

/// The T at a place that is known to hold one.
template <class T>
T Load(const void* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

}  // namespace kab
