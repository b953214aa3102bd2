// kab check: one verdict over a whole group.

#include "check.h"

#include <memory>

#include "commands.h"
#include "ranges.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Judges a whole group in one run: metadata blocks against each other, both checkpoint records, both logs block by\n"
    "block, PLOG replay, dedup superblocks, every dedup metadata block and its second copy, bitmaps against "
    "translation\n"
    "maps and hash maps, Orlo block 0, registry, map trees and component superblocks. Nothing is written; no finding\n"
    "stops the run. Each finding has a code, a severity (info, warning, damage), a disk and a byte offset; --json "
    "prints\n"
    "one object a line and a summary last. A disk that does not open is a finding, and the others are judged; the "
    "exit\n"
    "status then tells why it did not. --quick leaves the scans of whole regions and the map trees out.\n\n"
    "Example:\n"
    "  kab check ssd.img disk0.img disk1.img\n";

struct Options {
  GroupOptions group;
  bool quick = false;
  std::string memory = "1G";
};

Exit Run(Tool& tool, const Options& options) {
  Findings findings([&tool](const Finding& finding) { PrintFinding(tool, finding); });
  bool complete = true;
  Exit refused = Exit::kClean;
  Group group(tool, options.group, [&](const Refusal& refusal) {
    const char* code = refusal.code == Exit::kNotOurs ? "META-DISK-REFUSED" : "META-DISK-UNOPENED";
    findings.Add({code, Severity::kDamage, refusal.path, {}, {}, {}, refusal.reason});
    complete = false;
    refused = Worse(refused, refusal.code);
  });
  Check check{tool, findings, group, options.quick, complete};
  check.memory = SizeArgument("--memory", options.memory);
  CheckGroup(check);
  PrintSummary(tool, findings, check.complete);
  const bool damaged = findings.Count(Severity::kDamage) != 0;
  return Worse(refused, !check.complete ? Exit::kDamageIncomplete : damaged ? Exit::kDamage : Exit::kClean);
}

}  // namespace

void CheckGroup(Check& check) {
  CheckMeta(check);
  const bool replayed = CheckLog(check);
  CheckDedup(check);
  if (replayed) {
    CheckOrlo(check);
  } else {
    check.complete = false;
  }
}

void AddCheck(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command =
      AddCommand(app, tool, "check", "Judge a disk group", kDetails, [&tool, options] { return Run(tool, *options); });
  AddGroupOptions(command, options->group);
  command->add_flag("--quick", options->quick, "leave the scans of whole regions out");
  command->add_option("--memory", options->memory, "what bitmaps may take; with less the maps are read more often")
      ->type_name("SIZE")
      ->capture_default_str();
}

}  // namespace tool
