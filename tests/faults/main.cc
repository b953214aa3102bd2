// Lets single system calls and allocations of the tool fail, one after the other, and kills it in their place.
//
//   kab_faults KAB SHIM [--seed NAME] [--most N] [--only TEXT]
//
// A reference run of every command tells how often it makes each call. Then each call fails in a run of its own (of
// more than N calls of a kind, N spread evenly), and the run must end with the right status and a line that says why,
// or as the reference run did; what it leaves behind is whole, or known as unfinished, or not there.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "damage/seed.h"
#include "support/run_tool.h"
#include "support/temp_dir.h"
#include "view/exit_codes.h"

namespace {

using damage::Bytes;
using damage::Command;
using damage::Leaves;
using damage::Seed;
using tool::Exit;

struct Fault {
  const char* call;
  const char* effect;
  bool onward;  // that call and all after it
  std::set<int> statuses;
};

const std::set<int> kInput = {int(Exit::kError), int(Exit::kDamage), int(Exit::kDamageIncomplete)};
const std::set<int> kOutput = {int(Exit::kError)};
const std::set<int> kNoMemory = {int(Exit::kMemory)};
const Fault kFaults[] = {{"open", "EACCES", false, kInput},     {"open", "EMFILE", true, kInput},
                         {"open", "EBUSY", false, {1, 5}},      {"pread", "EIO", false, kInput},
                         {"pread", "short", false, kInput},     {"pread", "none", true, kInput},
                         {"fstat", "EIO", false, kInput},       {"pwrite", "EIO", false, kOutput},
                         {"pwrite", "short", false, kOutput},   {"pwrite", "ENOSPC", true, kOutput},
                         {"write", "ENOSPC", true, kOutput},    {"write", "short", false, kOutput},
                         {"fsync", "EIO", false, kOutput},      {"ftruncate", "ENOSPC", false, kOutput},
                         {"close", "EIO", false, kOutput},      {"malloc", "ENOMEM", false, kNoMemory},
                         {"malloc", "ENOMEM", true, kNoMemory}, {"calloc", "ENOMEM", false, kNoMemory},
                         {"calloc", "ENOMEM", true, kNoMemory}, {"realloc", "ENOMEM", false, kNoMemory}};
constexpr const char* kDeaths[] = {"pwrite", "write", "fsync", "ftruncate", "close"};

struct Options {
  std::string kab;
  std::string shim;
  std::vector<std::string> seeds;
  unsigned long most = ~0UL;
  std::string only;
};

/// What a command gives when nothing fails.
struct Reference {
  kab_test::ToolRun run;
  Bytes output;
  std::map<std::string, unsigned long> calls;
};

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

class Runner {
 public:
  Runner(const Options& options, const Seed& seed) : options_(options), seed_(seed) {}

  size_t Run() {
    for (const Command& command : seed_.commands) {
      if (command.leaves == Leaves::kSpoilt) target_ = kab_test::ReadFile(command.output);
      const Reference reference = Refer(command);
      for (const Fault& fault : kFaults) {
        for (const unsigned long number : Numbers(reference.calls.at(fault.call))) {
          const std::string plan = fmt::format("{}@{}{}={}", fault.call, number, fault.onward ? "+" : "", fault.effect);
          Fail(command, reference, fault, plan);
        }
      }
      if (!command.output.empty()) Kill(command, reference);
      Refer(command);  // others read what it leaves
    }
    fmt::print("{:<10} {:>6} runs, {:>5} of them killed, {} faults; by status", seed_.name, runs_, killed_, faults_);
    for (const auto& [status, count] : byStatus_) fmt::print("  {}: {}", status, count);
    fmt::print("\n");
    std::fflush(stdout);
    return faults_;
  }

 private:
  std::vector<unsigned long> Numbers(unsigned long count) const {
    std::vector<unsigned long> numbers;
    const unsigned long taken = std::min(count, options_.most);
    for (unsigned long i = 0; i < taken; ++i) {
      numbers.push_back(taken == 1 ? 1 : 1 + i * (count - 1) / (taken - 1));
    }
    return numbers;
  }

  void Prepare(const Command& command) {
    if (command.output.empty()) return;
    if (command.leaves == Leaves::kSpoilt) {
      kab_test::WriteFile(command.output, target_);
    } else {
      std::filesystem::remove(command.output);
    }
  }

  kab_test::ToolRun RunPlan(const Command& command, const std::string& plan, const std::string& counts = {}) {
    std::vector<std::string> arguments = {options_.kab};
    arguments.insert(arguments.end(), command.arguments.begin(), command.arguments.end());
    std::vector<std::string> environment = kab_test::SanitizerOptions();
    environment[0] += ":verify_asan_link_order=0";
    environment.push_back("LD_PRELOAD=" + options_.shim);
    environment.push_back("KAB_FAULT_PATH=" + seed_.folder);
    if (!plan.empty()) environment.push_back("KAB_FAULTS=" + plan);
    if (!counts.empty()) environment.push_back("KAB_FAULT_COUNTS=" + counts);
    ++runs_;
    return kab_test::RunTool(arguments, environment);
  }

  // The time at which a dump was made is its own.
  Bytes Output(const Command& command) const {
    Bytes bytes = kab_test::ReadFile(command.output);
    if (command.leaves == Leaves::kUnfinished && bytes.size() > 40) {
      std::fill(bytes.begin() + 32, bytes.begin() + 40, uint8_t{0});
    }
    return bytes;
  }

  Reference Refer(const Command& command) {
    Prepare(command);
    const std::string counts = seed_.folder + "/counts";
    Reference reference{RunPlan(command, "", counts), {}, {}};
    const Bytes text = kab_test::ReadFile(counts);
    std::istringstream lines(std::string(text.begin(), text.end()));
    std::string call;
    for (unsigned long number; lines >> call >> number;) reference.calls[call] = number;
    reference.output = Output(command);
    if (!reference.run.exited || reference.calls.empty()) {
      Tell(command, "", "the reference run fails: " + reference.run.err);
      std::exit(1);
    }
    std::filesystem::remove(counts);
    return reference;
  }

  void Fail(const Command& command, const Reference& reference, const Fault& fault, const std::string& plan) {
    if (!options_.only.empty() && !Has(fmt::format("{} {}", command.name, plan), options_.only)) return;
    Prepare(command);
    const kab_test::ToolRun run = RunPlan(command, plan);
    ++byStatus_[run.status];
    lastError_ = run.err;
    if (!options_.only.empty()) fmt::print("kab {} {}: {}\n{}{}", command.name, plan, run.status, run.out, run.err);
    if (!run.exited) {
      Tell(command, plan, run.timedOut ? "hangs" : fmt::format("killed by signal {}", run.signal));
      return;
    }
    if (run.status == reference.run.status && run.out == reference.run.out && Output(command) == reference.output) {
      return;  // the fault was of no consequence
    }
    if (run.status == reference.run.status && HoldsTheSame(command, reference)) return;
    // The second copy of something that cannot be read is no damage: a check warns of it.
    const bool warns = command.findings && run.status == 0 && Has(run.out, "\"severity\":\"warning\"");
    if (!warns && !IsRight(command, fault, run.status)) Tell(command, plan, fmt::format("exit status {}", run.status));
    if (run.err.empty() && !command.findings && run.out.empty()) Tell(command, plan, "gives no reason");
    CheckLeft(command, reference, plan, run.status);
    for (const auto& entry : std::filesystem::directory_iterator(seed_.folder)) {
      if (!Has(entry.path().filename().string(), ".kab-")) continue;
      Tell(command, plan, "leaves a temporary file");
      std::filesystem::remove(entry.path());
    }
  }

  static bool IsRight(const Command& command, const Fault& fault, int status) {
    if (fault.statuses.contains(status)) return true;
    const std::string call = fault.call;
    // A dump's header that cannot be read for once is one that does not match, and a stream for which zlib lacks memory
    // one that is broken; OpenSSL calls a key invalid.
    const bool ofDump = command.name.starts_with("verify") || command.name.starts_with("extract");
    if (ofDump && call == "pread") return status == int(Exit::kDigest);
    if (ofDump && call == "calloc") return status == int(Exit::kDamage) || status == int(Exit::kDamageIncomplete);
    return call == "realloc" && status == int(Exit::kError);
  }

  void CheckLeft(const Command& command, const Reference& reference, const std::string& plan, int status) {
    if (command.output.empty() || !Exists(command.output)) return;
    if (Output(command) == reference.output) return;
    if (command.leaves == Leaves::kSpoilt && Output(command) == target_) return;
    switch (command.leaves) {
      case Leaves::kNothing:
        Tell(command, plan, "leaves an output that is not whole");
        return;
      case Leaves::kPartial:
        if (status < int(Exit::kDamage)) Tell(command, plan, "leaves an output that is not whole");
        return;
      case Leaves::kUnfinished:
        if (HoldsTheSame(command, reference) || Has(lastError_, "is unfinished")) return;
        // A dump with gaps is a dump; any other failure must be known from the dump itself.
        if (status != int(Exit::kDamageIncomplete) && Verifies(command.output)) {
          Tell(command, plan, "leaves a dump that passes for whole");
        }
        return;
      case Leaves::kSpoilt:
        if (status >= 0 && !Has(lastError_, "not to be trusted")) Tell(command, plan, "spoils its target in silence");
        return;
    }
  }

  // A dump of the same bytes, whatever records they are cut into: a range that fails is read again in pieces.
  bool HoldsTheSame(const Command& command, const Reference& reference) {
    if (command.leaves != Leaves::kUnfinished || !Exists(command.output)) return false;
    const Bytes held = Extracted(kab_test::ReadFile(command.output));
    return !held.empty() && held == Extracted(reference.output);
  }

  Bytes Extracted(const Bytes& dump) {
    const std::string path = seed_.folder + "/held.kabdump";
    const std::string image = seed_.folder + "/held.img";
    kab_test::WriteFile(path, dump);
    kab_test::RunTool({options_.kab, "extract", path, image}, kab_test::SanitizerOptions());
    Bytes bytes = Exists(image) ? kab_test::ReadFile(image) : Bytes{};
    std::filesystem::remove(path);
    std::filesystem::remove(image);
    return bytes;
  }

  bool Verifies(const std::string& dump) {
    return kab_test::RunTool({options_.kab, "verify", dump}, kab_test::SanitizerOptions()).status == 0;
  }

  // Death in place of each call that changes a file, and once more when the call before was made by half.
  void Kill(const Command& command, const Reference& reference) {
    for (const char* call : kDeaths) {
      for (const unsigned long number : Numbers(reference.calls.at(call))) {
        std::vector<std::string> plans = {fmt::format("{}@{}=die", call, number)};
        if (Has(call, "write")) plans.push_back(fmt::format("{0}@{1}=short,{0}@{2}=die", call, number, number + 1));
        for (const std::string& plan : plans) {
          if (!options_.only.empty() && !Has(fmt::format("{} {}", command.name, plan), options_.only)) continue;
          Prepare(command);
          const kab_test::ToolRun run = RunPlan(command, plan);
          ++byStatus_[run.status];
          lastError_ = run.err;
          if (run.exited) {  // it gave up on the short call, or went on without another
            if (run.status != 0) CheckLeft(command, reference, plan, run.status);
          } else {
            ++killed_;
            CheckLeft(command, reference, plan, -1);
          }
          RemovePending();
          // Done again, it must end as if nothing had happened.
          if (command.leaves != Leaves::kSpoilt) continue;
          const kab_test::ToolRun again = RunPlan(command, "");
          if (again.status != reference.run.status || Output(command) != reference.output) {
            Tell(command, plan, "cannot be repeated");
          }
        }
      }
    }
  }

  // What a killed process could not remove; its name says that it is no output.
  void RemovePending() const {
    std::vector<std::filesystem::path> pending;
    for (const auto& entry : std::filesystem::directory_iterator(seed_.folder)) {
      if (Has(entry.path().filename().string(), ".kab-")) pending.push_back(entry.path());
    }
    for (const auto& path : pending) std::filesystem::remove(path);
  }

  void Tell(const Command& command, const std::string& plan, const std::string& what) {
    ++faults_;
    const size_t start = lastError_.find("ERROR: ");
    fmt::print("FAULT {}: kab {}: {}: {}\n{}\n", seed_.name, command.name, plan, what,
               lastError_.substr(start == std::string::npos ? 0 : start, 1500));
    std::fflush(stdout);
  }

  const Options& options_;
  const Seed& seed_;
  Bytes target_;  // what a command writes onto
  size_t runs_ = 0;
  size_t killed_ = 0;
  size_t faults_ = 0;
  std::map<int, size_t> byStatus_;
  std::string lastError_;
};

Options Parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const bool more = i + 1 < argc;
    if (argument == "--seed" && more) {
      options.seeds.emplace_back(argv[++i]);
    } else if (argument == "--most" && more) {
      options.most = std::max(1UL, std::strtoul(argv[++i], nullptr, 10));
    } else if (argument == "--only" && more) {
      options.only = argv[++i];
    } else if (options.kab.empty()) {
      options.kab = std::filesystem::absolute(argument).string();
    } else {
      options.shim = std::filesystem::absolute(argument).string();
    }
  }
  if (options.shim.empty()) {
    fmt::print(stderr, "kab_faults KAB SHIM [--seed NAME] [--most N] [--only TEXT]\n");
    std::exit(2);
  }
  if (options.seeds.empty()) options.seeds = {"dump", "dedup", "encrypted", "orlo-log"};
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = Parse(argc, argv);
  kab_test::LimitTools(1ULL << 30, 4ULL << 30);
  size_t faults = 0;
  for (const std::string& name : options.seeds) {
    const kab_test::TempDir folder;
    const Seed seed = damage::MakeSeed(name, folder.Path());
    faults += Runner(options, seed).Run();
  }
  return faults == 0 ? 0 : 1;
}
