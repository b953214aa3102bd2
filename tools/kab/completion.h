#pragma once
// kab completion SHELL: a script by which bash, zsh or fish completes commands, options and their values.

#include <CLI/CLI.hpp>

namespace tool {

struct Tool;

/// The script tells of every command that `app` has when it runs.
void AddCompletion(CLI::App& app, Tool& tool);

}  // namespace tool
