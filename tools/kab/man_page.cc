#include "man_page.h"

#include <fmt/format.h>

#include <cctype>
#include <memory>
#include <sstream>

#include "help_text.h"
#include "out_file.h"
#include "tool.h"

namespace tool {
namespace {

// Text that roff shows as it is. `minus` makes every hyphen one that can be pasted into a shell.
std::string Escape(const std::string& text, bool minus) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '\\':
        escaped += "\\e";
        break;
      case '-':
        escaped += minus ? "\\-" : "-";
        break;
      case '\'':
        escaped += "\\(aq";
        break;
      case '`':
        escaped += "\\(ga";
        break;
      case '^':
        escaped += "\\(ha";
        break;
      case '~':
        escaped += "\\(ti";
        break;
      default:
        escaped += c;
    }
  }
  // A dot at a line's start would begin a request.
  return escaped.starts_with('.') ? "\\&" + escaped : escaped;
}

std::string Bold(const std::string& text) { return "\\fB" + Escape(text, true) + "\\fR"; }
std::string Italic(const std::string& text) { return "\\fI" + Escape(text, true) + "\\fR"; }

// Flowing text with the options in it bold.
std::string Prose(const std::string& text) {
  std::string prose;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const size_t begin = word.find_first_not_of('(');
    const size_t end = word.find_last_not_of(".,;:)");
    if (!prose.empty()) prose += ' ';
    if (begin == std::string::npos || end == std::string::npos || word[begin] != '-' || end == begin) {
      prose += Escape(word, false);
    } else {
      prose += word.substr(0, begin) + Bold(word.substr(begin, end + 1 - begin)) + Escape(word.substr(end + 1), false);
    }
  }
  return prose + '\n';
}

// Command lines, or a table: shown as typed.
std::string AsTyped(const std::vector<std::string>& lines) {
  std::string text = ".RS 4\n.nf\n";
  for (const std::string& line : lines) text += Escape(line, true) + '\n';
  return text + ".fi\n.RE\n";
}

std::string Tagged(const std::string& term, const std::string& text) { return ".TP\n" + term + '\n' + Prose(text); }

std::string Heading(const std::string& title) { return ".SH " + title + '\n'; }

std::string Options(const std::string& title, const std::vector<OptionEntry>& options) {
  if (options.empty()) return {};
  std::string text = Heading(title);
  for (const OptionEntry& option : options) {
    std::string term;
    for (const std::string& name : option.names) term += (term.empty() ? "" : ", ") + Bold(name);
    if (!option.value.empty()) term += (term.empty() ? "" : " ") + Italic(option.value);
    text += Tagged(term, Explanation(option));
  }
  return text;
}

std::string Description(const std::vector<Paragraph>& paragraphs) {
  std::string text;
  for (const Paragraph& paragraph : paragraphs) {
    if (!paragraph.text.empty()) text += (text.empty() ? "" : ".PP\n") + Prose(paragraph.text);
    std::vector<std::string> typed;
    for (const Paragraph::Item& item : paragraph.items) {
      if (item.term.empty()) {
        typed.push_back(item.text);
      } else {
        text += Tagged(Bold(item.term), item.text);
      }
    }
    if (!typed.empty()) text += ".PP\n" + AsTyped(typed);
  }
  return text;
}

std::string ExitStatus(const CommandEntry& command) {
  std::string text = Heading("EXIT STATUS");
  if (!command.exitStatus.empty()) text += Prose(command.exitStatus);
  for (const ExitMeaning& row : kExitTable) text += Tagged(Bold(std::to_string(static_cast<int>(row.code))), row.text);
  return text;
}

// "kab [OPTION...] COMMAND": the words in capitals are the reader's to fill in.
std::string Synopsis(const std::string& usage) {
  std::string text;
  std::istringstream words(usage);
  for (std::string word; words >> word;) {
    const bool isName = std::isupper(static_cast<unsigned char>(word[0])) != 0;
    text += (text.empty() ? "" : " ") + (word[0] == '[' ? Escape(word, true) : isName ? Italic(word) : Bold(word));
  }
  return text + '\n';
}

std::string PageName(const CommandEntry& command) { return command.name.empty() ? "kab" : "kab-" + command.name; }

std::string SeeAlso(const OptionTable& table, const CommandEntry& command) {
  std::string text;
  const auto add = [&text](const CommandEntry& other) {
    if (!text.empty()) text += ",\n";
    text += ".BR " + Escape(PageName(other), true) + " (1)";
  };
  if (!command.name.empty()) {
    add(table.tool);
  } else {
    for (const CommandEntry& each : table.commands) add(each);
    text += ",\n.BR kab\\-dump (5)";
  }
  return Heading("SEE ALSO") + text + '\n';
}

}  // namespace

std::string ManPage(const OptionTable& table, const CommandEntry& command) {
  const bool isTool = command.name.empty();
  std::string title = PageName(command);
  for (char& c : title) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  std::string text = fmt::format(".TH {} 1 \"\" \"kab {}\" \"User Commands\"\n", Escape(title, true), KAB_TOOL_VERSION);
  text += ".nh\n.ad l\n";
  text += Heading("NAME") + Escape(PageName(command), true) + " \\- " + Prose(LowerFirst(command.summary));
  text += Heading("SYNOPSIS") + Synopsis(Usage(command));
  text += Heading("DESCRIPTION") + Description(command.description);
  if (isTool) {
    text += Heading("COMMANDS");
    for (const CommandEntry& each : table.commands) text += Tagged(Bold(each.name), LowerFirst(each.summary));
    text += ".PP\n" + Prose("Each has a page of its own, kab-COMMAND(1).");
  }
  text += Options("ARGUMENTS", command.arguments);
  text += Options(isTool ? "GLOBAL OPTIONS" : "OPTIONS", command.options);
  text += ".PP\n";
  text += isTool ? Prose("Global options may stand before the command or behind it.")
                 : ".RB \"Global options (\" \\-\\-json \", \" \\-\\-key\\-file \" and so on:\"\n.BR kab (1))\nmay "
                   "stand here too.\n";
  text += ExitStatus(command);
  if (!command.examples.empty()) text += Heading("EXAMPLES") + AsTyped(command.examples);
  return text + SeeAlso(table, command);
}

void AddManual(CLI::App& app, Tool& tool) {
  auto folder = std::make_shared<std::string>();
  const auto run = [&app, folder] {
    const OptionTable table = ReadTable(app);
    const auto write = [&](const CommandEntry& command) {
      const std::string page = ManPage(table, command);
      OutFile file(*folder + "/" + PageName(command) + ".1", true);
      file.Write(page.data(), page.size());
      file.Commit();
    };
    write(table.tool);
    for (const CommandEntry& command : table.commands) write(command);
    return Exit::kClean;
  };
  CLI::App* command = AddCommand(app, tool, "manual", "Write the manual pages", "", run);
  command->group("");  // the build's own
  command->add_option("FOLDER", *folder, "where to write them")->required();
}

}  // namespace tool
