#pragma once
// Captures the library's log stream for the length of a test.

#include <cstdio>
#include <string>

namespace kab_test {

/// Initialises the library on a stream in memory; the former stream comes back at the end.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// All lines so far.
  std::string Text();
  /// Forgets the lines so far.
  void Clear();

 private:
  FILE* former_;
  FILE* stream_ = nullptr;
  char* buffer_ = nullptr;
  size_t size_ = 0;
  size_t start_ = 0;
};

}  // namespace kab_test
