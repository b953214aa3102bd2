#include "tool.h"

#include <fmt/format.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>

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
  Json object = Json::object();
  object["schema"] = fmt::format("kab.{}", command);
  object["version"] = 1;
  return object;
}

CLI::App* AddCommand(CLI::App& app, Tool& tool, const std::string& name, const std::string& summary,
                     const std::string& details, std::function<Exit()> run) {
  CLI::App* command = app.add_subcommand(name, summary);
  command->fallthrough();
  command->footer(details);
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

}  // namespace tool
