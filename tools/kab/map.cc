// kab map: a picture of a group.

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <memory>

#include "commands.h"
#include "map_gather.h"
#include "map_render.h"
#include "out_file.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Draws every disk given as a bar of its regions, to scale: how full they are and how often their blocks are used,\n"
    "the path of each log through the write buffer from its oldest block to its newest, components, and every finding\n"
    "of kab check where it lies.\n\n"
    "  --text  bars of Unicode blocks on stdout; the default\n"
    "  --svg   one image\n"
    "  --html  one page to zoom and walk in, with a table of findings that leads to their places; needs no network\n"
    "  --json  the data behind the picture\n\n"
    "Examples:\n"
    "  kab map ssd.img disk0.img disk1.img\n"
    "  kab map --html group.html --svg group.svg ssd.img disk0.img disk1.img\n";

constexpr unsigned kColumns = 100;  // where stdout is no terminal
constexpr unsigned kMostColumns = 512;

struct Options {
  GroupOptions group;
  std::string svg;
  std::string html;
  bool text = false;
  unsigned columns = 0;
  bool quick = false;
  bool force = false;
};

unsigned Columns() {
  struct winsize size = {};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kColumns;
  return size.ws_col;
}

void WriteOut(const Options& options, const std::string& path, const std::string& data) {
  OutFile out(path, options.force);
  out.Write(data.data(), data.size());
  out.Commit();
}

// Before minutes of reading.
void CheckOutputs(const Tool& tool, const Options& options) {
  int onStdout = tool.json || options.text ? 1 : 0;
  for (const std::string* path : {&options.svg, &options.html}) {
    if (path->empty()) continue;
    if (*path == "-") {
      ++onStdout;
      continue;
    }
    RefuseInput(*path, options.group.Paths());
    RefuseExisting(*path, options.force);
  }
  if (onStdout > 1) throw Failure(Exit::kUsage, "map: only one form at a time can go to stdout");
}

Exit Run(Tool& tool, const Options& options) {
  CheckOutputs(tool, options);
  Group group(tool, options.group);
  MapModel model;
  MapGather gather{tool, group, model, options.quick};
  GatherMap(gather);
  if (!options.svg.empty()) WriteOut(options, options.svg, MapSvg(model));
  if (!options.html.empty()) WriteOut(options, options.html, MapHtml(model));
  if (tool.json) {
    Tool::PrintJson(MapJson(model));
  } else if (options.text || (options.svg.empty() && options.html.empty())) {
    Tool::Print(MapText(model, options.columns != 0 ? options.columns : Columns()));
  }
  if (!model.complete) return Exit::kDamageIncomplete;
  return model.counts[static_cast<size_t>(Severity::kDamage)] != 0 ? Exit::kDamage : Exit::kClean;
}

}  // namespace

void AddMap(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command =
      AddCommand(app, tool, "map", "Draw a disk group", kDetails, [&tool, options] { return Run(tool, *options); });
  command->add_option("--svg", options->svg, "where to write the image, - for stdout")->type_name("FILE");
  command->add_option("--html", options->html, "where to write the page, - for stdout")->type_name("FILE");
  command->add_flag("--text", options->text, "draw on the terminal");
  command->add_option("--columns", options->columns, "width of --text (default: the terminal's, else 100)")
      ->check(CLI::Range(40U, kMostColumns));
  command->add_flag("--quick", options->quick, "leave the scans of whole regions out");
  command->add_flag("-f,--force", options->force, "replace existing output files");
  AddGroupOptions(command, options->group);
}

}  // namespace tool
