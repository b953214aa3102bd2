#include "findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "kab/core.h"
#include "no_memory.h"

namespace tool {
namespace {

constexpr const char* kSeverityNames[] = {"info", "warning", "damage"};

Json Text(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

// A reader at the other end of a pipe gets each finding when it is made.
void PassOn() {
  if (std::fflush(stdout) != 0) throw SystemFailure("stdout", errno);
}

}  // namespace

const char* SeverityName(Severity severity) { return kSeverityNames[static_cast<size_t>(severity)]; }

void Findings::Add(const Finding& finding) {
  ++byCode_[finding.code];
  ++bySeverity_[static_cast<size_t>(finding.severity)];
  taker_(finding);
}

void PrintFinding(const Tool& tool, const Finding& finding) {
  if (tool.json) {
    Json object = Tool::Header("finding");
    object["code"] = finding.code;
    object["severity"] = SeverityName(finding.severity);
    object["disk"] = finding.disk;
    object["offset"] = finding.offset ? Json(*finding.offset) : Json(nullptr);
    object["expected"] = Text(finding.expected);
    object["found"] = Text(finding.found);
    object["text"] = finding.text;
    Tool::PrintJson(object);
    PassOn();
    return;
  }
  if (tool.quiet && finding.severity == Severity::kInfo) return;
  std::string line = fmt::format("{:<7} {} {}", SeverityName(finding.severity), finding.code, finding.disk);
  if (finding.offset) line += fmt::format(" at {}", *finding.offset);
  line += ": " + finding.text;
  if (!finding.expected.empty()) line += fmt::format(" (expected {}, found {})", finding.expected, finding.found);
  Tool::Print(line + "\n");
  PassOn();
}

void PrintSummary(const Tool& tool, const Findings& findings, bool complete) {
  const uint64_t damage = findings.Count(Severity::kDamage);
  const char* verdict = damage != 0 ? "damaged" : complete ? "clean" : "incomplete";
  if (tool.json) {
    Json object = Tool::Header("check");
    object["verdict"] = verdict;
    object["complete"] = complete;
    for (const Severity severity : {Severity::kInfo, Severity::kWarning, Severity::kDamage}) {
      object[SeverityName(severity)] = findings.Count(severity);
    }
    object["codes"] = Json::object();
    for (const auto& [code, count] : findings.ByCode()) object["codes"][code] = count;
    Tool::PrintJson(object);
    return;
  }
  Tool::Print(fmt::format("{}: {} damage, {} warnings, {} notes{}\n", verdict, damage,
                          findings.Count(Severity::kWarning), findings.Count(Severity::kInfo),
                          complete ? "" : "; not everything could be checked"));
}

LineTrap::LineTrap() : former_(kabLogStrm), stream_(open_memstream(&buffer_, &size_)) {
  if (stream_ == nullptr) throw std::bad_alloc();
  kabLogStrm = stream_;
}

LineTrap::~LineTrap() {
  kabLogStrm = former_;
  std::fclose(stream_);
  for (std::string_view text(buffer_, buffer_ != nullptr ? size_ : 0); !text.empty();) {
    const std::string_view line = text.substr(0, std::min(text.find('\n'), text.size() - 1) + 1);
    if (TellsOfNoMemory(line)) std::fwrite(line.data(), 1, line.size(), former_);  // never to be lost
    text.remove_prefix(line.size());
  }
  std::free(buffer_);
}

std::vector<std::string> LineTrap::Take(const std::string& disk) {
  if (std::fflush(stream_) != 0 || std::ferror(stream_) != 0) throw std::bad_alloc();  // a line is lost
  std::istringstream text(std::string(buffer_, size_));
  std::rewind(stream_);
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) {
    if (TellsOfNoMemory(line)) throw Failure(Exit::kMemory, line);  // says nothing about the disks
    for (const std::string& prefix : {disk + ": ", std::string("MetaError: "), std::string("Error: ")}) {
      if (line.starts_with(prefix)) line.erase(0, prefix.size());
    }
    lines.push_back(line);
  }
  return lines;
}

std::string LineTrap::TakeReason(const std::string& disk) {
  std::string reason;
  for (const std::string& line : Take(disk)) reason += (reason.empty() ? ": " : "; ") + line;
  return reason;
}

}  // namespace tool
