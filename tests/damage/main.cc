// Damages small groups in every way of a table and runs every command of the tool over each.
//
//   kab_damage KAB [--seed NAME] [--every N] [--only TEXT] [--keep] [--list]
//
// A run must end by itself, with a status of the tool's table, a line that names the fault when there is one, and
// nothing left behind. --only takes the cases whose name contains a text, and shows what was printed; --keep leaves the
// last case's files for a debugger.

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>

#include "damage/damage_case.h"
#include "damage/seed.h"
#include "support/run_tool.h"
#include "support/temp_dir.h"
#include "view/exit_codes.h"

namespace {

using damage::Case;
using damage::Command;
using damage::Leaves;
using damage::Seed;
using tool::Exit;

#if defined(__SANITIZE_ADDRESS__)
constexpr long kMostKiB = 700 << 10;
#else
constexpr long kMostKiB = 256 << 10;
#endif
constexpr double kMostSeconds = 30;
constexpr size_t kMostOutput = 8 << 20;

struct Options {
  std::string kab;
  std::vector<std::string> seeds;
  size_t every = 1;
  std::string only;
  bool keep = false;
  bool list = false;
};

struct Totals {
  size_t cases = 0;
  size_t runs = 0;
  size_t faults = 0;
  size_t noticed = 0;  // cases that `kab check` did not call clean
  std::map<int, size_t> byStatus;
  double slowest = 0;
  long largestKiB = 0;
};

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

/// What is wrong with a run whatever it ran over; empty when nothing is.
std::string Misbehaviour(const kab_test::ToolRun& run) {
  if (run.timedOut) return fmt::format("hangs: killed after {:.0f} s", run.seconds);
  if (!run.exited) return fmt::format("killed by signal {}", run.signal);
  constexpr Exit kKnown[] = {Exit::kClean,   Exit::kError, Exit::kUsage, Exit::kDamage, Exit::kDamageIncomplete,
                             Exit::kNotOurs, Exit::kDigest};
  // Out of memory is in the table, but no damage may lead there.
  if (std::none_of(std::begin(kKnown), std::end(kKnown), [&](Exit code) { return run.status == int(code); })) {
    return fmt::format("exit status {}", run.status);
  }
  if (run.peakKiB > kMostKiB) return fmt::format("took {} MiB of memory", run.peakKiB >> 10);
  if (run.out.size() + run.err.size() > kMostOutput) return "prints without end";
  return {};
}

/// A failure must come with a line that says on which disk, file or structure.
bool NamesFault(const Seed& seed, const kab_test::ToolRun& run, const Command& command) {
  if (command.findings && Has(run.out, "\"code\"")) return true;
  static const std::regex kUuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
  if (std::regex_search(run.err, kUuid)) return true;
  for (const std::string* text : {&run.err, &run.out}) {
    for (const char* word :
         {"MetaError:", "disk", "component", "checkpoint", "LOG", "log", "dump", seed.folder.c_str()}) {
      if (Has(*text, word)) return true;
    }
  }
  return false;
}

/// The last line of `kab check` must say what its status says.
std::string VerdictFault(const kab_test::ToolRun& run) {
  if (run.status != int(Exit::kClean) && run.status != int(Exit::kDamage) &&
      run.status != int(Exit::kDamageIncomplete)) {
    return {};
  }
  nlohmann::json last;
  size_t damage = 0;
  for (size_t at = 0; at < run.out.size();) {
    const size_t end = std::min(run.out.find('\n', at), run.out.size());
    last = nlohmann::json::parse(run.out.substr(at, end - at), nullptr, false);
    if (last.is_discarded()) return "prints a line that is no JSON";
    if (last.value("severity", "") == "damage") ++damage;
    at = end + 1;
  }
  const bool complete = last.value("complete", false);
  const Exit expected = !complete ? Exit::kDamageIncomplete : damage != 0 ? Exit::kDamage : Exit::kClean;
  return int(expected) == run.status ? ""
                                     : fmt::format("{} findings of damage, {}, but status {}", damage,
                                                   complete ? "complete" : "incomplete", run.status);
}

class Runner {
 public:
  Runner(const Options& options, const Seed& seed) : options_(options), seed_(seed) {}

  Totals Run() {
    Clean();
    std::vector<Case> cases = damage::MakeCases(seed_);
    std::vector<Case> chosen;
    for (size_t i = 0; i < cases.size(); ++i) {
      const bool wanted = options_.only.empty() ? i % options_.every == 0 : Has(cases[i].name, options_.only);
      if (wanted) chosen.push_back(std::move(cases[i]));
    }
    for (const Case& damaged : chosen) {
      if (options_.list) {
        fmt::print("{}\n", damaged.name);
        continue;
      }
      damage::Apply(seed_, damaged);
      RunCase(damaged);
      if (options_.keep && &damaged == &chosen.back()) break;
      damage::Undo(seed_, damaged);
    }
    totals_.cases = chosen.size();
    if (!options_.keep && !options_.list) Clean();
    return totals_;
  }

 private:
  // The seed itself is whole: before the first damage and after the last was undone.
  void Clean() {
    Case none{.name = "undamaged", .patches = {}};
    for (const Command& command : seed_.commands) {
      if (command.name == "check" && command.findings)
        Expect(none, command, RunOne(none, command).status == 0, "is not clean");
    }
    RemoveOutputs();
  }

  void RunCase(const Case& damaged) {
    const std::vector<timespec> before = Times();
    for (const Command& command : seed_.commands) {
      if (Has(command.name, "verify") && command.arguments.back().ends_with("out.kabdump") &&
          access(command.arguments.back().c_str(), F_OK) != 0) {
        continue;  // nothing was dumped
      }
      const kab_test::ToolRun run = RunOne(damaged, command);
      const std::string fault = Misbehaviour(run);
      Expect(damaged, command, fault.empty(), fault);
      Expect(damaged, command, run.status == 0 || NamesFault(seed_, run, command), "names no fault");
      if (command.findings) {
        const std::string verdict = VerdictFault(run);
        Expect(damaged, command, verdict.empty(), verdict);
      }
      if (command.name == "check") {
        totals_.noticed += run.status != 0;
        Expect(damaged, command, run.status != 0 || !damaged.mustBeFound, "does not notice the damage");
      }
      const bool mayStay = run.status == 0 || command.leaves == Leaves::kUnfinished ||
                           command.leaves == Leaves::kSpoilt || (command.leaves == Leaves::kPartial && run.status >= 3);
      if (!command.output.empty() && !mayStay) {
        Expect(damaged, command, access(command.output.c_str(), F_OK) != 0, "fails and leaves an output");
      }
      if (command.leaves == Leaves::kNothing || command.leaves == Leaves::kPartial) {
        std::filesystem::remove(command.output);
      }
      Expect(damaged, command, SameTimes(before), "writes to its input");
      Expect(damaged, command, !LeavesPending(), "leaves a temporary file");
    }
    RemoveOutputs();
  }

  kab_test::ToolRun RunOne(const Case& damaged, const Command& command) {
    std::vector<std::string> arguments = {options_.kab};
    arguments.insert(arguments.end(), command.arguments.begin(), command.arguments.end());
    kab_test::ToolRun run = kab_test::RunTool(arguments, kab_test::SanitizerOptions(), {kMostSeconds, kMostOutput + 1});
    ++totals_.runs;
    ++totals_.byStatus[run.status];
    totals_.slowest = std::max(totals_.slowest, run.seconds);
    totals_.largestKiB = std::max(totals_.largestKiB, run.peakKiB);
    if (!options_.only.empty()) {
      std::string shown;
      for (const std::string& argument : command.arguments) shown += " " + argument;
      fmt::print("{}: kab{}: {} in {:.2f} s\n{}{}", damaged.name, shown, run.status, run.seconds,
                 Has(command.name, "hex") ? "" : run.out.substr(0, 4000), run.err.substr(0, 4000));
    }
    lastError_ = run.err;
    return run;
  }

  void Expect(const Case& damaged, const Command& command, bool holds, const std::string& fault) {
    if (holds) return;
    ++totals_.faults;
    const size_t start = lastError_.find("ERROR: ");
    fmt::print("FAULT {}: {}: kab {}: {}\n{}\n", seed_.name, damaged.name, command.name, fault,
               lastError_.substr(start == std::string::npos ? 0 : start, 1200));
    std::fflush(stdout);
  }

  std::vector<timespec> Times() const {
    std::vector<timespec> times;
    for (const damage::File& file : seed_.files) {
      struct stat info = {};
      stat(file.path.c_str(), &info);
      times.push_back(info.st_mtim);
    }
    return times;
  }
  bool SameTimes(const std::vector<timespec>& before) const {
    const std::vector<timespec> now = Times();
    return std::equal(now.begin(), now.end(), before.begin(), [](const timespec& a, const timespec& b) {
      return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
    });
  }
  bool LeavesPending() const {
    return std::any_of(std::filesystem::directory_iterator(seed_.folder), {},
                       [](const auto& entry) { return Has(entry.path().filename().string(), ".kab-"); });
  }
  void RemoveOutputs() const {
    for (const char* name : {"/out", "/out.kabdump"}) std::filesystem::remove(seed_.folder + name);
  }

  const Options& options_;
  const Seed& seed_;
  Totals totals_;
  std::string lastError_;
};

Options Parse(int argc, char** argv) {
  Options options;
  const auto usage = [] {
    fmt::print(stderr, "kab_damage KAB [--seed NAME] [--every N] [--only TEXT] [--keep] [--list]\n");
    std::exit(2);
  };
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const bool more = i + 1 < argc;
    if (argument == "--seed" && more) {
      options.seeds.emplace_back(argv[++i]);
    } else if (argument == "--every" && more) {
      options.every = std::max(1UL, std::strtoul(argv[++i], nullptr, 10));
    } else if (argument == "--only" && more) {
      options.only = argv[++i];
    } else if (argument == "--keep") {
      options.keep = true;
    } else if (argument == "--list") {
      options.list = true;
    } else if (options.kab.empty() && argument[0] != '-') {
      options.kab = std::filesystem::absolute(argument).string();
    } else {
      usage();
    }
  }
  if (options.kab.empty()) usage();
  if (options.seeds.empty()) {
    for (const char* name : damage::SeedNames()) options.seeds.emplace_back(name);
  }
  return options;
}

void Report(const std::string& name, const Totals& totals) {
  std::string statuses;
  for (const auto& [status, count] : totals.byStatus) statuses += fmt::format("  {}: {}", status, count);
  fmt::print(
      "{:<10} {:>5} cases, {:>5} noticed by check, {:>6} runs, {} faults; slowest {:.2f} s, largest {} MiB; by "
      "status{}\n",
      name, totals.cases, totals.noticed, totals.runs, totals.faults, totals.slowest, totals.largestKiB >> 10,
      statuses);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = Parse(argc, argv);
  // A run that would fill the disk or the memory is ended by the system.
  kab_test::LimitTools(1ULL << 30, 2ULL << 30);
  size_t faults = 0;
  size_t cases = 0;
  for (const std::string& name : options.seeds) {
    const kab_test::TempDir folder;
    const Seed seed = damage::MakeSeed(name, folder.Path());
    const Totals totals = Runner(options, seed).Run();
    if (!options.list) Report(name, totals);
    faults += totals.faults;
    cases += totals.cases;
    if (options.keep) {
      std::filesystem::rename(folder.Path(), folder.Path() + "-kept");
      fmt::print("kept in {}-kept\n", folder.Path());
    }
  }
  if (cases == 0) {
    fmt::print(stderr, "kab_damage: no such case\n");
    return 2;
  }
  return faults == 0 ? 0 : 1;
}
