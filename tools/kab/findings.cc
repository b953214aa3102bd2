#include "findings.h"

#include <fmt/format.h>

#include <cstdlib>
#include <sstream>

#include "kab/core.h"

namespace tool {
namespace {

constexpr const char* kSeverityNames[] = {"info", "warning", "damage"};

Json Text(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

}  // namespace

void Findings::Add(const Finding& finding) {
  const auto severity = static_cast<size_t>(finding.severity);
  ++byCode_[finding.code];
  ++bySeverity_[severity];
  if (tool_.json) {
    Json object = Tool::Header("finding");
    object["code"] = finding.code;
    object["severity"] = kSeverityNames[severity];
    object["disk"] = finding.disk;
    object["offset"] = finding.offset ? Json(*finding.offset) : Json(nullptr);
    object["expected"] = Text(finding.expected);
    object["found"] = Text(finding.found);
    object["text"] = finding.text;
    Tool::PrintJson(object);
    return;
  }
  if (tool_.quiet && finding.severity == Severity::kInfo) return;
  std::string line = fmt::format("{:<7} {} {}", kSeverityNames[severity], finding.code, finding.disk);
  if (finding.offset) line += fmt::format(" at {}", *finding.offset);
  line += ": " + finding.text;
  if (!finding.expected.empty() || !finding.found.empty()) {
    line += fmt::format(" (expected {}, found {})", finding.expected, finding.found);
  }
  Tool::Print(line + "\n");
}

uint64_t Findings::Count(Severity severity) const { return bySeverity_[static_cast<size_t>(severity)]; }

void Findings::PrintSummary(bool complete) const {
  const uint64_t damage = Count(Severity::kDamage);
  const char* verdict = damage != 0 ? "damaged" : complete ? "clean" : "incomplete";
  if (tool_.json) {
    Json object = Tool::Header("check");
    object["verdict"] = verdict;
    object["complete"] = complete;
    for (size_t i = 0; i < 3; ++i) object[kSeverityNames[i]] = bySeverity_[i];
    object["codes"] = Json::object();
    for (const auto& [code, count] : byCode_) object["codes"][code] = count;
    Tool::PrintJson(object);
    return;
  }
  Tool::Print(fmt::format("{}: {} damage, {} warnings, {} notes{}\n", verdict, damage, Count(Severity::kWarning),
                          Count(Severity::kInfo), complete ? "" : "; not everything could be checked"));
}

LineTrap::LineTrap() : former_(kabLogStrm), stream_(open_memstream(&buffer_, &size_)) {
  if (stream_ == nullptr) throw std::bad_alloc();
  kabLogStrm = stream_;
}

LineTrap::~LineTrap() {
  kabLogStrm = former_;
  std::fclose(stream_);
  std::free(buffer_);
}

std::vector<std::string> LineTrap::Take(const std::string& disk) {
  std::fflush(stream_);
  std::istringstream text(std::string(buffer_, size_));
  std::rewind(stream_);
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) {
    for (const std::string& prefix : {disk + ": ", std::string("MetaError: "), std::string("Error: ")}) {
      if (line.starts_with(prefix)) line.erase(0, prefix.size());
    }
    lines.push_back(line);
  }
  return lines;
}

}  // namespace tool
