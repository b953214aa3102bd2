#include "log_relay.h"

#include <sys/types.h>

#include <algorithm>
#include <new>
#include <stdexcept>
#include <utility>

#include "no_memory.h"

namespace tool {
namespace {

bool Has(std::string_view line, std::string_view part) { return line.find(part) != std::string_view::npos; }

}  // namespace

LogRelay::LogRelay(Taker taker) : taker_(std::move(taker)) {
  cookie_io_functions_t functions = {};
  functions.write = [](void* cookie, const char* text, size_t size) -> ssize_t {
    try {
      static_cast<LogRelay*>(cookie)->Take({text, size});
    } catch (const std::bad_alloc&) {  // must not pass through stdio: the line is lost, the work goes on
      static_cast<LogRelay*>(cookie)->LackMemory();
    }
    return static_cast<ssize_t>(size);
  };
  stream_ = fopencookie(this, "w", functions);
  if (stream_ == nullptr) throw std::bad_alloc();
  setvbuf(stream_, nullptr, _IOLBF, 4096);
}

LogRelay::~LogRelay() {
  Bar({});
  std::fclose(stream_);
}

void LogRelay::Line(std::string_view line) {
  if (taker_) {
    taker_(std::string(line));
    return;
  }
  // A line may quote what a disk or a dump holds: none of that is to be obeyed by a terminal.
  std::string text(line);
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  const std::string bar = bar_;
  Bar({});
  std::fprintf(stderr, "%s\n", text.c_str());
  Bar(bar);
}

void LogRelay::Bar(std::string_view bar) {
  if (bar.empty() && bar_.empty()) return;
  std::fputs(("\r\033[K" + std::string(bar)).c_str(), stderr);
  std::fflush(stderr);
  bar_ = bar;
}

void LogRelay::Forget() {
  std::fflush(stream_);
  refusedDisk_ = outOfMemory_ = hashMismatch_ = inputFailed_ = false;
  metaErrors_ = 0;
  lastError_.clear();
}

void LogRelay::Take(std::string_view text) {
  partial_ += text;
  size_t start = 0;
  for (size_t end; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1) {
    TakeLine(std::string_view(partial_).substr(start, end - start));
  }
  partial_.erase(0, start);
}

void LogRelay::TakeLine(std::string_view line) {
  // A dump's own name for its device stands in it, and must not pass for what the library tells.
  if (Has(line, "Extracting chunk number")) {
    if (all_ && !quiet_) Line(line);
    return;
  }
  if (Has(line, "is not unmounted") || Has(line, "is not part of given diskgroup") ||
      Has(line, "Too many open disk requests") || Has(line, "is already open in this diskgroup") ||
      (Has(line, "Error: Failed to open d") && Has(line, "Device or resource busy"))) {
    refusedDisk_ = true;
  }
  if (TellsOfNoMemory(line)) LackMemory();
  if (Has(line, "Total Hash mismatch for dump")) hashMismatch_ = true;
  if (Has(line, "Failed to populate input for decompress")) inputFailed_ = true;
  if (Has(line, "MetaError:")) metaErrors_++;
  if (Has(line, "Error:")) lastError_ = line;

  if (quiet_ && !Has(line, "Error:")) return;
  Line(line);
}

}  // namespace tool
