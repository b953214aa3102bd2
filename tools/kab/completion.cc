#include "completion.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <memory>

#include "help_text.h"
#include "option_table.h"
#include "tool.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Prints a script for the shell. An installed kab brings all three to the places where the shells look for them; "
    "to\n"
    "use one without that, load it as below.\n\n"
    "Examples:\n"
    "  source <(kab completion bash)\n"
    "  kab completion zsh > ~/.zfunc/_kab     # in a folder of $fpath\n"
    "  kab completion fish > ~/.config/fish/completions/kab.fish\n";

// What a shell offers where a value stands.
enum class Offer { kNothing, kChoices, kFiles, kFolders };

Offer OfferFor(const OptionEntry& option) {
  const auto names = [&option](std::initializer_list<const char*> parts) {
    return std::any_of(parts.begin(), parts.end(),
                       [&option](const char* part) { return option.value.find(part) != std::string::npos; });
  };
  if (!option.choices.empty()) return Offer::kChoices;
  if (names({"FOLDER", "DIR"})) return Offer::kFolders;
  // A name that says nothing may stand for a file too.
  if (names({"FILE", "PATH", "SSD", "DISK", "DUMP", "TARGET", "IMAGE", "SOCKET"}) || option.value == "VALUE") {
    return Offer::kFiles;
  }
  return Offer::kNothing;
}

// In single quotes, as all three shells take them.
std::string Quoted(const std::string& text, bool isFish = false) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += isFish ? "\\'" : "'\\''";
    } else if (c == '\\' && isFish) {
      quoted += "\\\\";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::vector<std::string> CommandNames(const OptionTable& table) {
  std::vector<std::string> names;
  for (const CommandEntry& command : table.commands) names.push_back(command.name);
  return names;
}

std::vector<std::string> OptionNames(const CommandEntry& command) {
  std::vector<std::string> names;
  for (const OptionEntry& option : command.options) names.insert(names.end(), option.names.begin(), option.names.end());
  return names;
}

// One list for bash and fish: the lines of a case over "COMMAND OPTION" for all options with a value. `line` makes one.
template <class Line>
std::string ValueCases(const OptionTable& table, const Line& line) {
  std::string cases;
  const auto add = [&](const CommandEntry& command, const std::string& pattern) {
    for (const OptionEntry& option : command.options) {
      if (option.value.empty()) continue;
      std::vector<std::string> patterns;
      for (const std::string& name : option.names) patterns.push_back(fmt::format("{} {}", pattern, name));
      cases += line(patterns, option);
    }
  };
  for (const CommandEntry& command : table.commands) add(command, command.name);
  add(table.tool, "*");
  return cases;
}

// ---- bash

std::string BashOffer(const OptionEntry& option) {
  switch (OfferFor(option)) {
    case Offer::kChoices:
      return Quoted(fmt::format("{}", fmt::join(option.choices, " ")));
    case Offer::kFiles:
      return "-f";
    case Offer::kFolders:
      return "-d";
    case Offer::kNothing:
      break;
  }
  return "-";
}

constexpr const char* kBashHead = R"(# Completion of kab for bash, made by `kab completion bash`.

# Sets REPLY to what may follow option $2 of command $1: words, -f for files, -d for folders, - for what cannot be
# guessed; nothing when the option takes no value.
_kab_value() {
  REPLY=
  case "$1 $2" in
)";

constexpr const char* kBashArgument = R"(  esac
}

# The same for argument number $2 of command $1; the last one may be repeated.
_kab_argument() {
  REPLY=
  case "$1 $2" in
)";

constexpr const char* kBashOptions = R"(  esac
}

_kab_options() {
  case "$1" in
)";

constexpr const char* kBashTail = R"(  esac
}

_kab() {
  # Readline splits words at = and : too; here they are whole again.
  local -a words=()
  local i join=
  for ((i = 0; i <= COMP_CWORD; i++)); do
    if [[ ${COMP_WORDS[i]} == [=:]* ]] || [[ -n $join && -n ${COMP_WORDS[i]} ]]; then
      words[${#words[@]}-1]+=${COMP_WORDS[i]}
    elif [[ -z $join ]]; then
      words+=("${COMP_WORDS[i]}")
    fi
    join=
    [[ ${COMP_WORDS[i]} == [=:] ]] && join=1
  done

  local last=$((${#words[@]} - 1)) cur=${words[-1]} command= arguments=0 pending= onlyArguments= word REPLY
  for ((i = 1; i < last; i++)); do
    word=${words[i]} pending=
    if [[ -z $onlyArguments && $word == -- ]]; then
      onlyArguments=1
    elif [[ -z $onlyArguments && $word == -* ]]; then
      _kab_value "$command" "$word"
      [[ -n $REPLY ]] && pending=$REPLY && ((++i))
    elif [[ -z $command ]]; then
      command=$word
    else
      ((++arguments))
    fi
  done
  ((i == last)) && pending=  # its value stands in front of the cursor already

  local offer=$pending part=$cur
  if [[ -n $pending ]]; then
    [[ $pending == -f ]] && part=${cur##*=}  # UUID=FILE
  elif [[ -z $onlyArguments && $cur == --*=* ]]; then
    _kab_value "$command" "${cur%%=*}"
    offer=$REPLY part=${cur#*=}
  elif [[ -z $onlyArguments && $cur == -* ]]; then
    offer=$(_kab_options "$command")
  elif [[ -z $command ]]; then
    offer=$(_kab_options commands)
  else
    _kab_argument "$command" "$arguments"
    offer=$REPLY
  fi

  COMPREPLY=()
  case $offer in
    - | '') ;;
    -f | -d)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen "$offer" -- "$part")
      ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$offer" -- "$part") ;;
  esac
  # Readline replaces only what follows the last = or : of the word.
  part=${part%"${part##*[=:]}"}
  COMPREPLY=("${COMPREPLY[@]#"$part"}")
}
complete -F _kab kab
)";

std::string BashScript(const OptionTable& table) {
  std::string text = kBashHead;
  text += ValueCases(table, [](const std::vector<std::string>& patterns, const OptionEntry& option) {
    std::vector<std::string> quoted;
    quoted.reserve(patterns.size());
    for (const std::string& pattern : patterns) {
      quoted.push_back(pattern[0] == '*' ? "*" + Quoted(pattern.substr(1)) : Quoted(pattern));
    }
    return fmt::format("    {}) REPLY={} ;;\n", fmt::join(quoted, " | "), BashOffer(option));
  });
  text += kBashArgument;
  for (const CommandEntry& command : table.commands) {
    for (size_t i = 0; i < command.arguments.size(); i++) {
      const OptionEntry& argument = command.arguments[i];
      const std::string number = argument.repeatable ? "*" : std::to_string(i);
      text += fmt::format("    {}{}) REPLY={} ;;\n", Quoted(command.name + " "), number, BashOffer(argument));
    }
  }
  text += kBashOptions;
  text += fmt::format("    commands) echo {} ;;\n", Quoted(fmt::format("{}", fmt::join(CommandNames(table), " "))));
  const std::string global = fmt::format("{}", fmt::join(OptionNames(table.tool), " "));
  for (const CommandEntry& command : table.commands) {
    text += fmt::format("    {}) echo {} ;;\n", command.name,
                        Quoted(fmt::format("{} {}", fmt::join(OptionNames(command), " "), global)));
  }
  text += fmt::format("    *) echo {} ;;\n", Quoted(global));
  return text + kBashTail;
}

// ---- zsh

// Text inside an argument of _arguments, where brackets and colons have a meaning.
std::string ZshText(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '[' || c == ']' || c == ':' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string ZshAction(const OptionEntry& option) {
  switch (OfferFor(option)) {
    case Offer::kChoices:
      return fmt::format("({})", fmt::join(option.choices, " "));
    case Offer::kFiles:
      return option.value.find('=') == std::string::npos ? "_files" : "{compset -P \"*=\"; _files}";
    case Offer::kFolders:
      return "_files -/";
    case Offer::kNothing:
      break;
  }
  return " ";
}

// One argument of _arguments a line, with a backslash at its end.
std::string ZshEntries(const CommandEntry& command, const std::string& indent) {
  std::string text;
  for (const OptionEntry& option : command.options) {
    for (const std::string& name : option.names) {
      std::string entry = fmt::format("[{}]", ZshText(option.summary));
      const bool isLong = name.starts_with("--");
      if (!option.value.empty()) {
        entry = fmt::format("{}{}:{}:{}", isLong ? "=" : "+", entry, ZshText(option.value), ZshAction(option));
      }
      const std::string excluded = option.repeatable ? "*" : fmt::format("({})", fmt::join(option.names, " "));
      text += fmt::format("{}{} \\\n", indent, Quoted(fmt::format("{}{}{}", excluded, name, entry)));
    }
  }
  for (const OptionEntry& argument : command.arguments) {
    const std::string where = argument.repeatable ? "*:" : argument.required ? ":" : "::";
    const std::string entry = fmt::format("{}{}:{}", where, ZshText(argument.value), ZshAction(argument));
    text += fmt::format("{}{} \\\n", indent, Quoted(entry));
  }
  return text;
}

std::string ZshScript(const OptionTable& table) {
  std::string text =
      "#compdef kab\n"
      "# Completion of kab for zsh, made by `kab completion zsh`.\n\n"
      "_kab_commands() {\n"
      "  local -a commands=(\n";
  for (const CommandEntry& command : table.commands) {
    text += "    " + Quoted(command.name + ":" + LowerFirst(command.summary)) + "\n";
  }
  text +=
      "  )\n"
      "  _describe -t commands command commands\n"
      "}\n\n"
      "_kab() {\n"
      "  local curcontext=$curcontext state line\n"
      "  local -a globals=(\n";
  std::string globals = ZshEntries(table.tool, "    ");
  for (size_t at; (at = globals.find(" \\\n")) != std::string::npos;) globals.erase(at, 2);
  text += globals +
          "  )\n"
          "  _arguments -C -S $globals ':command:_kab_commands' '*::argument:->argument' && return\n"
          "  [[ $state == argument ]] || return\n"
          "  curcontext=${curcontext%:*:*}:kab-$words[1]:\n"
          "  case $words[1] in\n";
  for (const CommandEntry& command : table.commands) {
    text += "    " + command.name + ")\n      _arguments -S \\\n" + ZshEntries(command, "        ") +
            "        ${globals:#*--help*}\n      ;;\n";
  }
  return text +
         "  esac\n"
         "}\n\n"
         "if [[ $funcstack[1] == _kab ]]; then\n"
         "  _kab \"$@\"\n"
         "else\n"
         "  compdef _kab kab\n"
         "fi\n";
}

// ---- fish

constexpr const char* kFishHead = R"(# Completion of kab for fish, made by `kab completion fish`.

# Whether option $argv[2] of command $argv[1] is followed by a value.
function __kab_takes_value
    switch "$argv"
)";

constexpr const char* kFishTail = R"(            return 0
    end
    return 1
end

# The words in front of the cursor that are neither options nor their values: the command, then its arguments.
function __kab_words
    set -l found
    set -l skip 0
    for word in (commandline -opc)[2..]
        if test $skip = 1
            set skip 0
        else if string match -q -- '-*' $word
            __kab_takes_value "$found[1]" $word; and set skip 1
        else
            set -a found $word
        end
    end
    string join -- \n $found
end

function __kab_needs_command
    test (count (__kab_words)) = 0
end

# Whether the command is $argv[1] and, if more is given, $argv[2] to $argv[3] arguments stand in front of the cursor.
function __kab_in
    set -l found (__kab_words)
    test "$found[1]" = $argv[1]; or return
    test (count $argv) = 1; and return
    set -l arguments (math (count $found) - 1)
    test $arguments -ge $argv[2] -a $arguments -le $argv[3]
end

complete -c kab -f
)";

// -x and -r take a value; -x alone keeps files out.
std::string FishOffer(const OptionEntry& option) {
  switch (OfferFor(option)) {
    case Offer::kChoices:
      return "-x -a " + Quoted(fmt::format("{}", fmt::join(option.choices, " ")), true);
    case Offer::kFiles:
      return "-r -F";
    case Offer::kFolders:
      return "-x -a '(__fish_complete_directories)'";
    case Offer::kNothing:
      break;
  }
  return "-x";
}

std::string FishScript(const OptionTable& table) {
  std::string text = kFishHead;
  std::string patterns;
  text += "        case";
  text += ValueCases(table, [](const std::vector<std::string>& names, const OptionEntry&) {
    std::string line;
    for (const std::string& name : names) line += " " + Quoted(name, true);
    return line;
  });
  text += '\n';
  text += kFishTail;
  const auto addOptions = [&text](const CommandEntry& command, const std::string& condition) {
    for (const OptionEntry& option : command.options) {
      text += "complete -c kab" + condition;
      for (const std::string& name : option.names) {
        text += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
      }
      if (!option.value.empty()) text += " " + FishOffer(option);
      text += " -d " + Quoted(option.summary, true) + '\n';
    }
  };
  for (const CommandEntry& command : table.commands) {
    text += fmt::format("complete -c kab -n __kab_needs_command -a {} -d {}\n", command.name,
                        Quoted(LowerFirst(command.summary), true));
  }
  addOptions(table.tool, "");
  for (const CommandEntry& command : table.commands) {
    addOptions(command, fmt::format(" -n '__kab_in {}'", command.name));
    for (size_t i = 0; i < command.arguments.size(); i++) {
      const OptionEntry& argument = command.arguments[i];
      if (OfferFor(argument) == Offer::kNothing) continue;
      text += fmt::format("complete -c kab -n '__kab_in {} {} {}' {}\n", command.name, i, argument.repeatable ? 999 : i,
                          FishOffer(argument));
    }
  }
  return text;
}

}  // namespace

void AddCompletion(CLI::App& app, Tool& tool) {
  auto shell = std::make_shared<std::string>();
  const auto run = [&app, shell] {
    const OptionTable table = ReadTable(app);
    Tool::Print(*shell == "bash" ? BashScript(table) : *shell == "zsh" ? ZshScript(table) : FishScript(table));
    return Exit::kClean;
  };
  CLI::App* command =
      AddCommand(app, tool, "completion", "Print a script by which a shell completes kab's arguments", kDetails, run);
  command->add_option("SHELL", *shell, "bash, zsh or fish")->required()->check(CLI::IsMember({"bash", "zsh", "fish"}));
}

}  // namespace tool
