#include "progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace tool {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(200);

std::string Duration(double seconds) {
  const auto whole = static_cast<uint64_t>(std::min(seconds, 359999.0));
  return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

}  // namespace

std::string HumanBytes(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  auto value = static_cast<double>(bytes);
  size_t unit = 0;
  for (; value >= 1024 && unit + 1 < std::size(kUnits); unit++) value /= 1024;
  return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, kUnits[unit]);
}

Progress::Progress(Tool& tool, std::string task, uint64_t total)
    : tool_(tool), task_(std::move(task)), total_(total), start_(Clock::now()), next_(start_ + kInterval) {
  bar_ = tool.progress == ProgressMode::kAuto && !tool.quiet && isatty(STDERR_FILENO) != 0;
}

Progress::~Progress() {
  if (bar_) tool_.log.Bar({});
}

void Progress::Add(uint64_t bytes) {
  done_ += bytes;
  if (!bar_ && tool_.progress != ProgressMode::kJson) return;
  const auto now = Clock::now();
  if (now < next_) return;
  next_ = now + kInterval;
  Show(now, false);
}

void Progress::Finish() {
  Show(Clock::now(), true);
  if (bar_) tool_.log.Bar({});
}

void Progress::Show(Clock::time_point now, bool last) {
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const double rate = seconds > 0 ? static_cast<double>(done_) / seconds : 0;
  const bool known = total_ != 0 && rate > 0;
  const double left = known && total_ > done_ ? static_cast<double>(total_ - done_) / rate : 0;
  if (tool_.progress == ProgressMode::kJson) {
    Json object = Tool::Header("progress");
    object["task"] = task_;
    object["done"] = done_;
    object["total"] = total_ != 0 ? Json(total_) : Json(nullptr);
    object["bytesPerSecond"] = static_cast<uint64_t>(rate);
    object["secondsLeft"] = known ? Json(static_cast<uint64_t>(left)) : Json(nullptr);
    object["finished"] = last;
    tool_.log.Line(object.dump(-1, ' ', false, Json::error_handler_t::replace));
    return;
  }
  if (!bar_ || last) return;
  if (total_ == 0) {
    tool_.log.Bar(fmt::format("{} {}  {}/s", task_, HumanBytes(done_), HumanBytes(static_cast<uint64_t>(rate))));
    return;
  }
  const double share = std::min(1.0, static_cast<double>(done_) / static_cast<double>(total_));
  constexpr size_t kWidth = 30;
  const auto filled = static_cast<size_t>(share * kWidth);
  tool_.log.Bar(fmt::format("{} [{}{}] {:3.0f}%  {}  {}/s  {} left", task_, std::string(filled, '#'),
                            std::string(kWidth - filled, '.'), share * 100, HumanBytes(done_),
                            HumanBytes(static_cast<uint64_t>(rate)), Duration(left)));
}

}  // namespace tool
