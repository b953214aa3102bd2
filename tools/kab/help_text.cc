#include "help_text.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <sstream>

#include "exit_codes.h"

namespace tool {
namespace {

constexpr size_t kColumns = 80;
constexpr size_t kTermColumns = 24;  // a longer term has its text on the next line

// Words in lines of at most kColumns that begin with `indent` blanks; `at` is the column of the first word.
std::string Fill(const std::string& text, size_t indent, size_t at) {
  std::string filled;
  size_t column = at;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (column > indent && column + 1 + word.size() > kColumns) {
      filled += '\n' + std::string(indent, ' ');
      column = indent;
    } else if (column > indent) {
      filled += ' ';
      column++;
    }
    filled += word;
    column += word.size();
  }
  return filled + '\n';
}

std::string Flowing(const std::string& text) { return "  " + Fill(text, 2, 2); }

std::string TermLine(const std::string& term, const std::string& text) {
  if (text.empty()) return "  " + term + '\n';
  const size_t indent = kTermColumns;
  std::string line = "  " + term;
  line += line.size() + 2 <= indent ? std::string(indent - line.size(), ' ') : '\n' + std::string(indent, ' ');
  return line + Fill(text, indent, indent);
}

std::string Options(const std::string& title, const std::vector<OptionEntry>& options) {
  if (options.empty()) return {};
  std::string text = "\n" + title + ":\n";
  for (const OptionEntry& option : options) text += TermLine(Synopsis(option), Explanation(option));
  return text;
}

std::string Description(const std::vector<Paragraph>& paragraphs) {
  std::string text;
  for (const Paragraph& paragraph : paragraphs) {
    text += '\n';
    if (!paragraph.text.empty()) text += Flowing(paragraph.text);
    for (const Paragraph::Item& item : paragraph.items) {
      text += item.term.empty() ? "  " + item.text + '\n' : TermLine(item.term, item.text);
    }
  }
  return text;
}

std::string ExitStatus(const CommandEntry& command) {
  std::string text = "\nExit status:\n";
  if (!command.exitStatus.empty()) text += Flowing(command.exitStatus) + '\n';
  for (const ExitMeaning& row : kExitTable) text += fmt::format("  {}  {}\n", static_cast<int>(row.code), row.text);
  return text;
}

}  // namespace

std::string LowerFirst(std::string summary) {
  if (summary.size() > 1 && std::islower(static_cast<unsigned char>(summary[1])) != 0) {
    summary[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(summary[0])));
  }
  return summary;
}

std::string Synopsis(const OptionEntry& option) {
  if (option.names.empty()) return option.value;
  const std::string names = fmt::format("{}", fmt::join(option.names, ", "));
  return option.value.empty() ? names : names + " " + option.value;
}

std::string Explanation(const OptionEntry& option) {
  std::string text = option.summary;
  if (!option.choices.empty() && text.find(option.choices[0]) == std::string::npos) {
    text += fmt::format(": {}", fmt::join(option.choices, ", "));
  }
  if (!option.defaultValue.empty() && text.find("default") == std::string::npos) {
    text += fmt::format(" (default: {})", option.defaultValue);
  }
  return text;
}

std::string Usage(const CommandEntry& command) {
  if (command.name.empty()) return "kab [OPTION...] COMMAND [ARGUMENT...]";
  std::string usage = "kab " + command.name + " [OPTION...]";
  for (const OptionEntry& option : command.options) {
    if (option.required) usage += fmt::format(" {} {}", option.names[0], option.value);
  }
  for (const OptionEntry& argument : command.arguments) {
    const std::string name = argument.value + (argument.repeatable ? "..." : "");
    usage += argument.required ? " " + name : " [" + name + "]";
  }
  return usage;
}

std::string HelpText(const OptionTable& table, const CommandEntry& command) {
  const bool isTool = command.name.empty();
  std::string text = isTool ? "kab -" : fmt::format("kab {} -", command.name);
  text += Fill(LowerFirst(command.summary), 2, text.size());
  text += "\nUsage:\n  " + Usage(command) + '\n';
  if (!command.description.empty()) text += "\nDescription:" + Description(command.description);
  if (isTool) {
    text += "\nCommands:\n";
    for (const CommandEntry& each : table.commands) text += TermLine(each.name, LowerFirst(each.summary));
    text += "\n" + Flowing("kab COMMAND --help tells more about each, as does man kab-COMMAND.");
  }
  text += Options("Arguments", command.arguments);
  text += Options(isTool ? "Global options" : "Options", command.options);
  if (!isTool) text += "\n" + Flowing("Global options (--json, --key-file and so on: kab --help) may stand here too.");
  text += ExitStatus(command);
  if (!command.examples.empty()) text += "\nExamples:\n";
  for (const std::string& example : command.examples) text += "  " + example + '\n';
  return text;
}

}  // namespace tool
