// Parses what people type: sizes, ranges and UUIDs. Whatever is accepted must mean what it says.

#include <string>

#include "core/frame/uuid_text.h"
#include "demand.h"
#include "kab/ranges.h"
#include "kab/tool.h"
#include "sample/disk_image.h"

namespace {

constexpr uint64_t kLimit = uint64_t{1} << 40;

void ParseRange(const std::string& text) {
  try {
    const tool::Range range = tool::RangeArgument(text, kLimit);
    KAB_DEMAND(range.offset <= kLimit && range.length <= kLimit - range.offset);
    const std::string again = std::to_string(range.offset) + ":" + std::to_string(range.length);
    const tool::Range same = tool::RangeArgument(again, kLimit);
    KAB_DEMAND(same.offset == range.offset && same.length == range.length);
  } catch (const tool::Failure& failure) {
    KAB_DEMAND(failure.code() == tool::Exit::kUsage && *failure.what() != '\0');
  }
}

void ParseSize(const std::string& text) {
  const auto size = tool::ParseSize(text);
  if (!size) return;
  KAB_DEMAND(tool::ParseSize(std::to_string(*size)) == size);
}

void ParseUuid(const std::string& text) {
  sample::Uuid uuid{};
  if (!kab::ParseUuid(text.c_str(), uuid.data())) return;
  sample::Uuid again{};
  KAB_DEMAND(kab::ParseUuid(sample::UuidText(uuid).c_str(), again.data()) && again == uuid);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  ParseRange(text);
  ParseSize(text);
  ParseUuid(text);
  return 0;
}
