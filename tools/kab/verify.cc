// kab verify DIR|FILE...: are these dumps whole?

#include <fmt/format.h>

#include <memory>

#include "commands.h"
#include "dump_file.h"
#include "dump_set.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Replays every record of each dump, writes nothing, and compares magic, version, lengths and SHA-256. Of a set, a\n"
    "folder, the manifest is read, and every dump must be there and hold what the manifest says. An unfinished dump "
    "or\n"
    "set is told apart from a broken one.\n\n"
    "Exit status: 0 when all are intact, 6 when a digest does not match, 3 for any other damage.\n\n"
    "Examples:\n"
    "  kab verify before.kabdump after.kabdump\n"
    "  kab verify before\n";

struct Options {
  std::vector<std::string> files;
};

// `dump` is null when there is no header to show.
void Report(Tool& tool, const std::string& file, const DumpFile* dump, const Verdict& verdict) {
  if (tool.json) {
    Json object = Tool::Header("verify");
    object["path"] = file;
    object["verdict"] = VerdictName(verdict.kind);
    object["reason"] = verdict.reason.empty() ? Json(nullptr) : Json(verdict.reason);
    object["recordsReplayed"] = verdict.records;
    object["dataBytes"] = verdict.dataBytes;
    if (dump != nullptr) AddHeader(object, dump->header());
    Tool::PrintJson(object);
    return;
  }
  if (verdict.kind != Verdict::kIntact) {
    Tool::Print(fmt::format("{}: {}\n", file, verdict.reason));
    return;
  }
  const DumpHeader& header = dump->header();
  Tool::Print(fmt::format("{}: intact\n  {} records, {} of {} ({}), made {}\n  sha256 {}\n", file, header.records,
                          HumanBytes(verdict.dataBytes), header.device, HumanBytes(header.diskSize),
                          TimeText(header.createdMicroseconds), HexText(header.sha256.data(), header.sha256.size())));
}

// After its members.
void ReportSet(Tool& tool, const std::string& path, const DumpSet& set, const Verdict& verdict) {
  if (tool.json) {
    Json object = Tool::Header("verify");
    object["path"] = path;
    object["verdict"] = VerdictName(verdict.kind);
    object["reason"] = verdict.reason.empty() ? Json(nullptr) : Json(verdict.reason);
    object["dumps"] = set.members().size();
    Tool::PrintJson(object);
  } else {
    Tool::Print(verdict.kind == Verdict::kIntact
                    ? fmt::format("{}: intact, a set of {} dumps\n", path, set.members().size())
                    : fmt::format("{}: {}\n", path, verdict.reason));
  }
}

Exit VerifyFile(Tool& tool, const std::string& path) {
  const DumpFile dump(path);
  const Verdict verdict = dump.Replay(tool, "verify", {});
  Report(tool, path, &dump, verdict);
  return ExitOf(verdict);
}

Exit VerifySet(Tool& tool, const std::string& path) {
  const DumpSet set(path);
  Verdict whole = set.verdict();
  Exit worst = ExitOf(whole);
  for (const SetMember& member : set.members()) {
    std::unique_ptr<DumpFile> dump;
    Verdict verdict = set.Open(member, &dump);
    if (dump != nullptr) verdict = set.Replay(tool, member, *dump, "verify", {});
    Report(tool, set.PathOf(member), dump.get(), verdict);
    worst = Worse(worst, ExitOf(verdict));
    if (whole.kind == Verdict::kIntact && verdict.kind != Verdict::kIntact) {
      whole = {verdict.kind, fmt::format("{} is not what it was", member.file)};
    }
  }
  ReportSet(tool, path, set, whole);
  return worst;
}

Exit Run(Tool& tool, const Options& options) {
  Exit worst = Exit::kClean;
  for (const std::string& file : options.files) {
    try {
      worst = Worse(worst, DumpSet::IsSet(file) ? VerifySet(tool, file) : VerifyFile(tool, file));
    } catch (const Failure& failure) {  // the other files are still worth a look
      if (Interrupted()) throw;
      tool.log.Line(fmt::format("kab: {}", failure.what()));
      worst = Worse(worst, failure.code());
    }
  }
  return worst;
}

}  // namespace

void AddVerify(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command = AddCommand(app, tool, "verify", "Check that dump files and sets are whole", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  command->add_option("FILE", options->files, "dump files, or folders that hold a set")->required();
}

}  // namespace tool
