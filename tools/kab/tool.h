#pragma once
// What all commands share: the global options, the ways out (text, JSON, notes) and the interruption flag.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"
#include "log_relay.h"

namespace tool {

using Json = nlohmann::ordered_json;

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

}  // namespace tool
