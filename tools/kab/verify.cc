// kab verify FILE...: are these dumps whole?

#include <fmt/format.h>

#include <memory>

#include "commands.h"
#include "dump_file.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Replays every record of each dump, writes nothing, and compares magic, version, lengths and SHA-256. An\n"
    "unfinished dump is told apart from a broken one.\n\n"
    "Exit status: 0 when all are intact, 6 when a digest does not match, 3 for any other damage.\n\n"
    "Example:\n"
    "  kab verify before.kabdump after.kabdump\n";

struct Options {
  std::vector<std::string> files;
};

Exit ExitOf(Verdict::Kind kind) {
  if (kind == Verdict::kIntact) return Exit::kClean;
  return kind == Verdict::kDigestMismatch ? Exit::kDigest : Exit::kDamage;
}

void Report(Tool& tool, const std::string& file, const DumpHeader& header, const Verdict& verdict) {
  if (tool.json) {
    Json object = Tool::Header("verify");
    object["path"] = file;
    object["verdict"] = VerdictName(verdict.kind);
    object["reason"] = verdict.reason.empty() ? Json(nullptr) : Json(verdict.reason);
    object["recordsReplayed"] = verdict.records;
    object["dataBytes"] = verdict.dataBytes;
    AddHeader(object, header);
    Tool::PrintJson(object);
    return;
  }
  if (verdict.kind != Verdict::kIntact) {
    Tool::Print(fmt::format("{}: {}\n", file, verdict.reason));
    return;
  }
  Tool::Print(fmt::format("{}: intact\n  {} records, {} of {} ({}), made {}\n  sha256 {}\n", file, header.records,
                          HumanBytes(verdict.dataBytes), header.device, HumanBytes(header.diskSize),
                          TimeText(header.createdMicroseconds), HexText(header.sha256.data(), header.sha256.size())));
}

Exit Run(Tool& tool, const Options& options) {
  Exit worst = Exit::kClean;
  for (const std::string& file : options.files) {
    try {
      const DumpFile dump(file);
      const Verdict verdict = dump.Replay(tool, "verify", {});
      Report(tool, file, dump.header(), verdict);
      worst = Worse(worst, ExitOf(verdict.kind));
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
  CLI::App* command = AddCommand(app, tool, "verify", "Check that dump files are whole", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  command->add_option("FILE", options->files, "dump files")->required();
}

}  // namespace tool
