#pragma once
// The manual pages kab(1) and kab-COMMAND(1), in roff.

#include <string>

#include "option_table.h"

namespace tool {

struct Tool;

/// The page of one command, or of the tool itself.
std::string ManPage(const OptionTable& table, const CommandEntry& command);

/// kab manual FOLDER, for the build: writes all pages. Not shown among the commands.
void AddManual(CLI::App& app, Tool& tool);

}  // namespace tool
