#include "ranges.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <limits>

#include "tool.h"

namespace tool {

std::optional<uint64_t> ParseSize(const std::string& text) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const char* begin = text.data() + (hex ? 2 : 0);
  const char* end = text.data() + text.size();
  uint64_t value = 0;
  const auto [rest, error] = std::from_chars(begin, end, value, hex ? 16 : 10);
  if (error != std::errc() || rest == begin) return std::nullopt;
  if (rest == end) return value;
  if (rest + 1 != end) return std::nullopt;
  uint32_t shift = 0;
  switch (*rest) {
    case 's':
      shift = 9;
      break;
    case 'K':
    case 'k':
      shift = 10;
      break;
    case 'M':
    case 'm':
      shift = 20;
      break;
    case 'G':
    case 'g':
      shift = 30;
      break;
    case 'T':
    case 't':
      shift = 40;
      break;
    default:
      return std::nullopt;
  }
  if (value > std::numeric_limits<uint64_t>::max() >> shift) return std::nullopt;
  return value << shift;
}

uint64_t SizeArgument(const std::string& option, const std::string& text) {
  const auto value = ParseSize(text);
  if (!value) throw Failure(Exit::kUsage, fmt::format("{} {}: not a size", option, text));
  return *value;
}

Range RangeArgument(const std::string& text, uint64_t limit) {
  const size_t colon = text.find(':');
  const auto offset = ParseSize(text.substr(0, colon));
  if (colon == std::string::npos || !offset) throw Failure(Exit::kUsage, fmt::format("range {}: not OFF:LEN", text));
  if (*offset > limit) {
    throw Failure(Exit::kUsage, fmt::format("range {}: begins behind the disk's end at {}", text, limit));
  }
  const std::string lengthText = text.substr(colon + 1);
  if (lengthText.empty()) return {*offset, limit - *offset};
  const auto length = ParseSize(lengthText);
  if (!length) throw Failure(Exit::kUsage, fmt::format("range {}: not OFF:LEN", text));
  if (*length > limit - *offset) {
    throw Failure(Exit::kUsage, fmt::format("range {}: ends behind the disk's end at {}", text, limit));
  }
  return {*offset, *length};
}

std::vector<Range> RangeArguments(const std::vector<std::string>& texts, uint64_t limit) {
  std::vector<Range> ranges;
  ranges.reserve(texts.size());
  for (const std::string& text : texts) ranges.push_back(RangeArgument(text, limit));
  return ranges;
}

std::vector<Range> Merged(std::vector<Range> ranges) {
  std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.offset < b.offset; });
  std::vector<Range> merged;
  for (const Range& range : ranges) {
    if (range.length == 0) continue;
    if (merged.empty() || merged.back().offset + merged.back().length < range.offset) {
      merged.push_back(range);
    } else {
      Range& last = merged.back();
      last.length = std::max(last.length, range.offset + range.length - last.offset);
    }
  }
  return merged;
}

uint64_t TotalLength(const std::vector<Range>& ranges) {
  uint64_t total = 0;
  for (const Range& range : ranges) total += range.length;
  return total;
}

}  // namespace tool
