#include "option_table.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <sstream>
#include <string_view>

namespace tool {
namespace {

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

// The parser keeps an option's values only in its type's name: {a,b}, or {a->0,b->1} for values with a meaning.
std::vector<std::string> Choices(const std::string& type) {
  const size_t open = type.find('{');
  const size_t close = type.find('}', open);
  if (close == std::string::npos) return {};
  std::vector<std::string> choices = Split(type.substr(open + 1, close - open - 1), ',');
  for (std::string& choice : choices) choice.resize(std::min(choice.size(), choice.find("->")));
  return choices;
}

// The value's name in an option's summary: "OFF:LEN, a range to read" begins with it.
std::string LeadingName(const std::string& summary) {
  const size_t comma = summary.find(", ");
  if (comma == std::string::npos) return {};
  const std::string name = summary.substr(0, comma);
  const bool isName =
      std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::ispunct(c) || std::isupper(c); });
  return isName ? name : std::string();
}

// The name that a command gave a value's type, else one for what the parser takes it for. Checks add a colon and their
// own words: UINT:UINT in [0 - 7].
std::string NameOfType(std::string type) {
  if (type.find_first_of(" {") != std::string::npos) type.resize(type.find(':'));
  if (type.starts_with("TEXT:")) return type.substr(5);
  if (type == "TEXT") return "VALUE";
  return type == "UINT" || type == "INT" ? "N" : type;
}

OptionEntry ReadOption(const CLI::Option& option) {
  OptionEntry entry;
  for (const std::string& name : option.get_snames()) entry.names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) entry.names.push_back("--" + name);
  entry.summary = option.get_description();
  std::replace(entry.summary.begin(), entry.summary.end(), '\n', ' ');
  entry.required = option.get_required();
  if (option.get_items_expected_max() > 0) {
    const std::string type = option.get_type_name();
    entry.choices = Choices(type);
    entry.value = LeadingName(entry.summary);
    if (!entry.value.empty()) entry.summary.erase(0, entry.value.size() + 2);
    if (entry.value.empty()) entry.value = NameOfType(type);
    if (entry.names.empty()) entry.value = option.get_name(true);
    entry.defaultValue = option.get_default_str();
    entry.repeatable = option.get_items_expected_max() > 1;
  }
  return entry;
}

// One paragraph of a command's details: text, then items.
Paragraph ReadParagraph(const std::vector<std::string>& lines) {
  Paragraph paragraph;
  for (const std::string& line : lines) {
    const size_t indent = line.find_first_not_of(' ');
    if (indent < 2) {
      paragraph.text += (paragraph.text.empty() ? "" : " ") + line;
    } else if (indent > 2 && !paragraph.items.empty()) {
      paragraph.items.back().text += " " + line.substr(indent);
    } else {
      const size_t gap = line.find("  ", indent);
      const size_t text = line.find_first_not_of(' ', gap);
      if (text == std::string::npos) {
        paragraph.items.push_back({"", line.substr(indent)});
      } else {
        paragraph.items.push_back({line.substr(indent, gap - indent), line.substr(text)});
      }
    }
  }
  return paragraph;
}

void ReadDetails(const std::string& details, CommandEntry& command) {
  constexpr std::string_view kExit = "Exit status: ";
  std::vector<std::string> lines = Split(details, '\n');
  lines.emplace_back();
  std::vector<std::string> block;
  for (const std::string& line : lines) {
    if (!line.empty()) {
      block.push_back(line);
      continue;
    }
    if (block.empty()) continue;
    const Paragraph paragraph = ReadParagraph(block);
    block.clear();
    if (paragraph.text.starts_with(kExit)) {
      command.exitStatus = paragraph.text.substr(kExit.size());
    } else if (paragraph.text == "Example:" || paragraph.text == "Examples:") {
      for (const Paragraph::Item& item : paragraph.items) {
        command.examples.push_back(item.term.empty() ? item.text : item.term + "  " + item.text);
      }
    } else {
      command.description.push_back(paragraph);
    }
  }
}

CommandEntry ReadCommand(const CLI::App& app) {
  CommandEntry command;
  command.name = app.get_parent() == nullptr ? "" : app.get_name();
  command.summary = app.get_description();
  ReadDetails(app.get_footer(), command);
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_group().empty()) continue;
    (option->nonpositional() ? command.options : command.arguments).push_back(ReadOption(*option));
  }
  return command;
}

}  // namespace

const CommandEntry* OptionTable::Find(const std::string& command) const {
  const auto found = std::find_if(commands.begin(), commands.end(),
                                  [&command](const CommandEntry& entry) { return entry.name == command; });
  return found == commands.end() ? nullptr : &*found;
}

OptionTable ReadTable(const CLI::App& app) {
  OptionTable table;
  table.tool = ReadCommand(app);
  for (const CLI::App* command : app.get_subcommands({})) {
    if (!command->get_group().empty()) table.commands.push_back(ReadCommand(*command));
  }
  return table;
}

}  // namespace tool
