#pragma once
// Every command of the tool. A new one is a file that defines tool::Add<Name>, and a line here.

#include <CLI/CLI.hpp>

#include "tool.h"

#define KAB_COMMANDS(X) \
  X(Sample)             \
  X(Info)               \
  X(Read)               \
  X(Dump)               \
  X(Verify)             \
  X(Extract)            \
  X(Diff)               \
  X(Check)              \
  X(Log)                \
  X(Component)          \
  X(Map)                \
  X(Serve)

namespace tool {

#define KAB_DECLARE_COMMAND(Name) void Add##Name(CLI::App& app, Tool& tool);
KAB_COMMANDS(KAB_DECLARE_COMMAND)
#undef KAB_DECLARE_COMMAND

}  // namespace tool
