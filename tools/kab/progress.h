#pragma once
// How far a command is: a bar with rate and time left on a terminal, objects with --progress=json, else nothing.

#include <chrono>
#include <cstdint>
#include <string>

#include "tool.h"

namespace tool {

class Progress {
 public:
  /// @param total  bytes to come; 0 when unknown.
  Progress(Tool& tool, std::string task, uint64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Add(uint64_t bytes);
  /// What is to come has become known better.
  void SetTotal(uint64_t total) { total_ = total; }
  /// All is done: the last object is written, the bar goes away.
  void Finish();

 private:
  using Clock = std::chrono::steady_clock;
  void Show(Clock::time_point now, bool last);

  Tool& tool_;
  std::string task_;
  uint64_t total_;
  uint64_t done_ = 0;
  bool bar_;
  Clock::time_point start_;
  Clock::time_point next_;
};

/// "1.5 GiB".
std::string HumanBytes(uint64_t bytes);

}  // namespace tool
