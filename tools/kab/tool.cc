#include "tool.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "kab/types.h"

namespace tool {
namespace {

volatile sig_atomic_t interrupted = 0;

void OnSignal(int /*number*/) { interrupted = 1; }

}  // namespace

void Tool::Note(std::string_view line) {
  if (!quiet) log.Line(line);
}

void Tool::Print(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) throw SystemFailure("stdout", errno);
}

void Tool::PrintJson(const Json& object) {
  // Paths are bytes: what is not UTF-8 in them is replaced rather than refused.
  Print(object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
}

Json Tool::Header(std::string_view command) {
  Json object;
  object["schema"] = fmt::format("kab.{}", command);
  object["version"] = 1;
  return object;
}

CLI::App* AddCommand(CLI::App& app, Tool& tool, const std::string& name, const std::string& summary,
                     const std::string& details, std::function<Exit()> run) {
  CLI::App* command = app.add_subcommand(name, summary);
  command->fallthrough();
  command->footer(details + "\nGlobal options (--json, --key-file and so on: kab --help) may stand here too.\n");
  command->callback([&tool, run = std::move(run)] { tool.run = run; });
  return command;
}

void InstallSignals() {
  struct sigaction action = {};
  action.sa_handler = OnSignal;  // without SA_RESTART: a blocked read or write comes back
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
  sigaction(SIGXFSZ, &action, nullptr);  // a file over its limit is a failed write like any other
}

bool Interrupted() { return interrupted != 0; }

void StopIfInterrupted() {
  if (Interrupted()) throw Failure(Exit::kError, "interrupted");
}

void RequireFileOrDevice(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISBLK(info.st_mode)) {
    throw Failure(Exit::kError, fmt::format("{}: neither a regular file nor a block device", path));
  }
}

Failure SystemFailure(const std::string& what, int error) {
  if (error == EPIPE) return {Exit::kError, ""};  // the reader has enough: nothing to tell
  return {error == ENOMEM ? Exit::kMemory : Exit::kError,
          fmt::format("{}: {}", what, std::generic_category().message(error))};
}

Exit ExitOfStatus(uint32_t status) {
  switch (status) {
    case KAB_OK:
      return Exit::kClean;
    case KAB_OUT_OF_MEMORY:
      return Exit::kMemory;
    case KAB_BUSY:
      return Exit::kNotOurs;
    case KAB_BLOCK_INVALID:
    case KAB_NO_CHECKPOINT:
    case KAB_MAGIC_MISMATCH:
    case KAB_VERSION_MISMATCH:
    case KAB_DECOMPRESS_FAILED:
      return Exit::kDamageIncomplete;
    default:
      return Exit::kError;
  }
}

}  // namespace tool
