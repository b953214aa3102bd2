#pragma once
// Runs the tool under limits and keeps what it printed.

#include <string>
#include <vector>

namespace kab_test {

struct ToolRun {
  bool exited = false;  // otherwise ended by `signal`, or by us after the time limit
  int status = 0;
  int signal = 0;
  bool timedOut = false;
  double seconds = 0;
  long peakKiB = 0;  // of memory
  std::string out;
  std::string err;
};

struct ToolLimits {
  double seconds = 30;
  size_t keptOutput = 1 << 20;  // bytes of each stream that are kept
};

/// `command[0]` is the program. `environment` adds to the process's own.
ToolRun RunTool(const std::vector<std::string>& command, const std::vector<std::string>& environment = {},
                const ToolLimits& limits = {});

/// For all programs run from now on: the size of a file, and, without sanitizers, of the address space.
void LimitTools(unsigned long long fileBytes, unsigned long long memoryBytes);

/// Sanitizers then end a program with this status, which is none of the tool's.
constexpr int kSanitizerStatus = 99;
std::vector<std::string> SanitizerOptions();

}  // namespace kab_test
