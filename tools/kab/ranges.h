#pragma once
// Sizes and byte ranges as users write them.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tool {

struct Range {
  uint64_t offset;
  uint64_t length;
  bool operator==(const Range&) const = default;
};

/// Decimal or 0x..., with K, M, G or T for powers of 1024 and s for sectors of 512; empty when it is none.
std::optional<uint64_t> ParseSize(const std::string& text);
/// ParseSize, or a usage failure that names the argument.
uint64_t SizeArgument(const std::string& option, const std::string& text);
/// "OFF:LEN", or "OFF:" for all from there on. A usage failure when it does not lie within `limit` bytes.
Range RangeArgument(const std::string& text, uint64_t limit);
std::vector<Range> RangeArguments(const std::vector<std::string>& texts, uint64_t limit);
/// Sorted, without empty ones; what overlaps or touches is one range. None may end beyond 64 bits.
std::vector<Range> Merged(std::vector<Range> ranges);
uint64_t TotalLength(const std::vector<Range>& ranges);

}  // namespace tool
