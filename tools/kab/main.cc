// kab: offline inspection of the disks of an Arvo disk group. Arguments, the exit code, nothing else.

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <string_view>

#include "commands.h"
#include "completion.h"
#include "help_text.h"
#include "kab/core.h"
#include "man_page.h"
#include "tool.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Looks at the disks of an Arvo disk group while they are offline: one cache SSD with its logs and up to seven\n"
    "capacity disks, as block devices or image files. The SSD comes first, then the disks. They are opened read-only\n"
    "unless a command writes by name.\n\n"
    "Results go to stdout, everything else to stderr. With --json a result is one object, or one a line for streams,\n"
    "that begins with schema and version. No output is overwritten without --force, and a replaced one stays until "
    "the\n"
    "new one is whole.\n\n"
    "Keys of encrypted disks come from the host's key cache or from the kernel keyring; --key-file goes before "
    "both.\n\n"
    "Offsets, lengths and sizes are bytes, also 0x..., or with a unit: K, M, G, T (powers of 1024) or s (sectors of\n"
    "512).\n\n"
    "Examples:\n"
    "  kab sample --disks 2 group\n"
    "  kab info group/ssd.img group/disk0.img group/disk1.img\n"
    "  kab check --json group/ssd.img group/disk0.img group/disk1.img\n";

void AddGlobalOptions(CLI::App& app, Tool& tool) {
  app.add_flag("--json", tool.json, "print JSON instead of text: one object, or one a line for streams");
  app.add_option("--key-file", tool.keyFiles, "UUID=FILE, a disk's key: 64 bytes or 128 hexadecimal digits; repeatable")
      ->allow_extra_args(false);
  const std::map<std::string, ProgressMode> modes = {
      {"auto", ProgressMode::kAuto}, {"json", ProgressMode::kJson}, {"none", ProgressMode::kNone}};
  app.add_option("--progress", tool.progress, "auto (a bar on a terminal), json (objects on stderr), none")
      ->transform(CLI::CheckedTransformer(modes, CLI::ignore_case))
      ->type_name("MODE");
  app.add_flag("-q,--quiet", tool.quiet, "only results and errors");
  app.add_flag("-v,--verbose", tool.verbose, "also the library's progress lines");
  app.set_version_flag("--version", std::string("kab ") + KAB_TOOL_VERSION, "print the version");
  app.set_help_flag("-h,--help", "print this help");
}

Exit ShowHelp(const CLI::App& app) {
  const OptionTable table = ReadTable(app);
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  const CommandEntry* command = chosen.empty() ? nullptr : table.Find(chosen[0]->get_name());
  Tool::Print(HelpText(table, command == nullptr ? table.tool : *command));
  return Exit::kClean;
}

// Where memory runs out in a destructor (of a JSON value, for one) no exception passes.
[[noreturn]] void OnTerminate() {
  try {
    if (const std::exception_ptr error = std::current_exception()) std::rethrow_exception(error);
  } catch (const std::bad_alloc&) {
    static constexpr std::string_view kLine = "kab: out of memory\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kLine.data(), kLine.size());
    _exit(static_cast<int>(Exit::kMemory));
  } catch (...) {
    std::abort();
  }
  std::abort();
}

int Main(int argc, char** argv) {
  Tool tool;
  CLI::App app("Inspect, dump and restore the disks of an Arvo disk group", "kab");
  AddGlobalOptions(app, tool);
#define KAB_ADD_COMMAND(Name) Add##Name(app, tool);
  KAB_COMMANDS(KAB_ADD_COMMAND)
#undef KAB_ADD_COMMAND
  AddCompletion(app, tool);  // these two tell of all the others
  AddManual(app, tool);
  app.require_subcommand(1);
  app.footer(kDetails);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    tool.run = [&app] { return ShowHelp(app); };
  } catch (const CLI::ParseError& error) {
    if (app.get_subcommands().empty() && !app.remaining().empty()) {
      tool.log.Line(fmt::format("kab: {}: no such command or option; kab --help lists them", app.remaining()[0]));
      return static_cast<int>(Exit::kUsage);
    }
    return app.exit(error) == 0 ? 0 : static_cast<int>(Exit::kUsage);
  }

  InstallSignals();
  tool.log.ShowAll(tool.verbose);
  tool.log.Quiet(tool.quiet);
  KABInit(0, tool.log.stream());
  Exit code = Exit::kError;
  std::string told;
  try {
    code = tool.run();
    if (code == Exit::kMemory) tool.log.Line("kab: out of memory");
  } catch (const Failure& failure) {
    code = failure.code();
    told = failure.what();
    if (*failure.what() != '\0') tool.log.Line(fmt::format("kab: {}", failure.what()));
  } catch (const std::bad_alloc&) {
    code = Exit::kMemory;
    tool.log.Line("kab: out of memory");
  } catch (const std::exception& error) {
    tool.log.Line(fmt::format("kab: {}", error.what()));
  }
  if (tool.log.lackedMemory()) code = Exit::kMemory;  // whatever was made of it
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    const std::string reason = errno != EPIPE ? SystemFailure("stdout", errno).what() : told;
    if (reason != told) tool.log.Line(fmt::format("kab: {}", reason));
    code = Worse(code, Exit::kError);
  }
  return static_cast<int>(code);
}

}  // namespace
}  // namespace tool

int main(int argc, char** argv) {
  std::set_terminate(tool::OnTerminate);
  try {
    return tool::Main(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kab: %s\n", error.what());
    return static_cast<int>(tool::Exit::kMemory);
  }
}
