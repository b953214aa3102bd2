#pragma once
// What --help prints, and the wording that it shares with the manual pages.

#include <string>

#include "option_table.h"

namespace tool {

/// The page of one command, or of the tool itself, 80 columns wide.
std::string HelpText(const OptionTable& table, const CommandEntry& command);

/// "kab dump [OPTION...] -o FILE SSD [DISK...]"
std::string Usage(const CommandEntry& command);
/// "-o, --output FILE", or an argument's name.
std::string Synopsis(const OptionEntry& option);
/// An option's summary with its values and default, where these are not said yet.
std::string Explanation(const OptionEntry& option);
/// "copy ranges of a disk": a summary as the second half of a line that begins with the name.
std::string LowerFirst(std::string summary);

}  // namespace tool
