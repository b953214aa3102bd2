#pragma once
// What all commands share: the global options, the ways out (text, JSON, notes) and the interruption flag.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "exit_codes.h"
#include "log_relay.h"

namespace tool {

using Json = nlohmann::ordered_json;

/// Ends a command: the message, if any, goes to stderr, the code to the caller.
class Failure : public std::runtime_error {
 public:
  Failure(Exit code, const std::string& message) : std::runtime_error(message), code_(code) {}
  Exit code() const { return code_; }

 private:
  Exit code_;
};

enum class ProgressMode { kAuto, kJson, kNone };

struct Tool {
  bool json = false;
  bool quiet = false;
  bool verbose = false;
  ProgressMode progress = ProgressMode::kAuto;
  std::vector<std::string> keyFiles;  // UUID=FILE

  LogRelay log;
  std::function<Exit()> run;  // set by the command that the arguments chose

  /// A line for people on stderr, unless --quiet.
  void Note(std::string_view line);
  /// Text for people on stdout. Throws Failure when stdout does not take it.
  static void Print(std::string_view text);
  /// One JSON object on a line of its own on stdout.
  static void PrintJson(const Json& object);
  /// The first members of a command's object.
  static Json Header(std::string_view command);
};

/// Adds a command that takes the global options in any place; `run` is called once the arguments stand. option_table.h
/// tells how `details` are written.
CLI::App* AddCommand(CLI::App& app, Tool& tool, const std::string& name, const std::string& summary,
                     const std::string& details, std::function<Exit()> run);

/// Lets SIGINT and SIGTERM only set a flag, and writes to a closed pipe fail.
void InstallSignals();
bool Interrupted();
/// Throws when the user has asked to stop.
void StopIfInterrupted();

/// Throws for a path that holds neither a file nor a device: a FIFO would wait for its other end for ever.
void RequireFileOrDevice(const std::string& path);

/// A run-time error with the system's text for `error`.
Failure SystemFailure(const std::string& what, int error);
/// The exit code of a library status other than 0.
Exit ExitOfStatus(uint32_t status);

}  // namespace tool
