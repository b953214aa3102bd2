#pragma once
// The tool's commands and options, as its argument parser knows them: --help, the manual pages and the completions are
// written from this and from nothing else.
//
// A command's details (AddCommand) are paragraphs with a blank line between them. Lines indented by two spaces are
// items: a term, two spaces or more, and its text; or, without these spaces, a line shown as typed. "Exit status: ..."
// and "Example:" or "Examples:" begin the paragraphs that stand at the end.

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tool {

/// An option, or with no names an argument that is known by its place.
struct OptionEntry {
  std::vector<std::string> names;  // -o, --output
  std::string value;               // FILE; empty for a flag
  std::string summary;
  std::vector<std::string> choices;  // the values there are, if they are few
  std::string defaultValue;
  bool required = false;
  bool repeatable = false;
};

/// A paragraph of flowing text, and the items below it; either may be missing.
struct Paragraph {
  struct Item {
    std::string term;  // empty: `text` is shown as typed
    std::string text;
  };
  std::string text;
  std::vector<Item> items;
};

struct CommandEntry {
  std::string name;  // empty for the tool itself
  std::string summary;
  std::vector<Paragraph> description;
  std::string exitStatus;             // what the statuses mean here, if it is more than the common table
  std::vector<std::string> examples;  // command lines
  std::vector<OptionEntry> options;
  std::vector<OptionEntry> arguments;
};

struct OptionTable {
  CommandEntry tool;  // its options are the global ones
  std::vector<CommandEntry> commands;

  /// Null when there is no such command.
  const CommandEntry* Find(const std::string& command) const;
};

/// The table of an application whose commands have all been added. Hidden commands are left out.
OptionTable ReadTable(const CLI::App& app);

}  // namespace tool
