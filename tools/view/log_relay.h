#pragma once
// The library's log stream: its lines go on to stderr, past the progress bar, or to a taker, and are remembered by
// kind, since an open that fails tells its reason nowhere else.

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

namespace tool {

class LogRelay {
 public:
  /// Takes a line without its end; must not throw.
  using Taker = std::function<void(const std::string& line)>;

  /// Without a taker the lines go to stderr.
  explicit LogRelay(Taker taker = {});
  ~LogRelay();
  LogRelay(const LogRelay&) = delete;
  LogRelay& operator=(const LogRelay&) = delete;

  FILE* stream() { return stream_; }
  /// Progress lines of the library are shown too.
  void ShowAll(bool all) { all_ = all; }
  /// Only lines that tell of an error are shown.
  void Quiet(bool quiet) { quiet_ = quiet; }

  /// A line of the tool itself.
  void Line(std::string_view line);

  /// The progress bar: one line that gives way to every other. Empty takes it away.
  void Bar(std::string_view bar);

  /// What the library's lines told since the last Forget.
  bool refusedDisk() const { return refusedDisk_; }  // in use, mounted, or not of this group
  bool outOfMemory() const { return outOfMemory_; }
  bool lackedMemory() const { return lackedMemory_; }  // at any time, whatever was forgotten since
  bool hashMismatch() const { return hashMismatch_; }
  bool inputFailed() const { return inputFailed_; }  // a dump file that could not be read
  uint64_t metaErrors() const { return metaErrors_; }
  const std::string& lastError() const { return lastError_; }  // the last line that tells of an error
  void Forget();

 private:
  void LackMemory() { outOfMemory_ = lackedMemory_ = true; }
  void Take(std::string_view text);
  void TakeLine(std::string_view line);

  Taker taker_;
  FILE* stream_;
  std::string partial_;
  std::string bar_;
  bool all_ = false;
  bool quiet_ = false;
  bool refusedDisk_ = false;
  bool outOfMemory_ = false;
  bool lackedMemory_ = false;
  bool hashMismatch_ = false;
  bool inputFailed_ = false;
  uint64_t metaErrors_ = 0;
  std::string lastError_;
};

}  // namespace tool
