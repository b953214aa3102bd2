#pragma once
// What kab check found: data first, text for people made of it. docs/findings.md lists the codes.

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tool.h"

namespace tool {

enum class Severity { kInfo, kWarning, kDamage };
const char* SeverityName(Severity severity);

struct Finding {
  const char* code;  // stable, for programs: docs/findings.md
  Severity severity;
  std::string disk;                // UUID text; the path of a disk that does not open
  std::optional<uint64_t> offset;  // bytes from the start of the device
  std::string expected;
  std::string found;
  std::string text;
};

/// Takes findings as they come, hands each on at once and keeps only counts.
class Findings {
 public:
  using Taker = std::function<void(const Finding&)>;
  explicit Findings(Taker taker) : taker_(std::move(taker)) {}

  void Add(const Finding& finding);
  uint64_t Count(Severity severity) const { return bySeverity_[static_cast<size_t>(severity)]; }
  const std::map<std::string, uint64_t>& ByCode() const { return byCode_; }

 private:
  Taker taker_;
  std::map<std::string, uint64_t> byCode_;
  uint64_t bySeverity_[3] = {};
};

/// One line or JSON object on stdout.
void PrintFinding(const Tool& tool, const Finding& finding);
/// The last object or line: counts by severity and by code, and the verdict.
void PrintSummary(const Tool& tool, const Findings& findings, bool complete);

/// Takes the library's lines for the length of a scope in place of the log stream.
class LineTrap {
 public:
  LineTrap();
  ~LineTrap();
  LineTrap(const LineTrap&) = delete;
  LineTrap& operator=(const LineTrap&) = delete;

  /// The lines so far, without their line ends and the disk's name in front; they are forgotten then.
  std::vector<std::string> Take(const std::string& disk);
  /// The same as one text that follows another: ": line; line", or nothing.
  std::string TakeReason(const std::string& disk);

 private:
  FILE* former_;
  FILE* stream_;
  char* buffer_ = nullptr;
  size_t size_ = 0;
};

}  // namespace tool
