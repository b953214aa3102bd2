// kab serve: a disk or a component as an NBD export, by nbdkit and the plugin that lies beside the tool.

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>

#include "commands.h"
#include "component.h"
#include "group.h"
#include "view.h"

namespace tool {
namespace {

constexpr const char* kDetails =
    "Serves what `kab read --as-group` or `kab component read` would give as a read-only NBD export, through nbdkit,\n"
    "until SIGINT, SIGTERM or SIGHUP: to copy it, to look into it with other tools, or to mount what lies on it. Its\n"
    "URI goes to stdout once clients may connect.\n\n"
    "--socket makes a Unix socket that only the caller's user may open; it is removed at the end. --port listens on\n"
    "127.0.0.1 alone, for every user of this machine; 0 takes a free port.\n\n"
    "A block that cannot be read gives an I/O error, every other one is served. The disks and the key files are read\n"
    "twice: by kab, which tells what is wrong with them, and by nbdkit.\n\n"
    "Exit status: 0 after a signal; 4 after it when damage hides a part of the component's map.\n\n"
    "Examples:\n"
    "  kab serve --disk 1 --socket disk1.sock ssd.img disk0.img disk1.img\n"
    "  nbdcopy \"nbd+unix:///?socket=$PWD/disk1.sock\" disk1.copy\n"
    "  kab serve --component UUID --port 10809 ssd.img disk0.img\n"
    "  qemu-img convert -O qcow2 nbd://127.0.0.1:10809 component.qcow2\n";

constexpr int kFirstPassedFd = 3;  // where a service finds the sockets that it was given
constexpr const char* kPlugin = "nbdkit-kab-plugin.so";

struct Options {
  GroupOptions group;
  std::string component;
  std::string socket;
  int32_t port = -1;
};

std::string UriEscaped(const std::string& path) {
  std::string text;
  for (const char c : path) {
    const bool plain =
        std::isalnum(static_cast<unsigned char>(c)) != 0 || (c != '\0' && std::strchr("/._~-", c) != nullptr);
    text += plain ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
  }
  return text;
}

/// A socket that clients may connect to; a Unix socket's path goes away with it.
class Listener {
 public:
  explicit Listener(const Options& options) {
    if (options.socket.empty()) {
      ListenOnPort(static_cast<uint16_t>(options.port));
    } else {
      ListenOnPath(options.socket);
    }
  }
  ~Listener() {
    if (fd_ >= 0) close(fd_);
    if (!path_.empty()) unlink(path_.c_str());
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int fd() const { return fd_; }
  const std::string& uri() const { return uri_; }

 private:
  void ListenOnPath(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
      throw Failure(Exit::kUsage, fmt::format("--socket {}: longer than {} bytes", path, sizeof address.sun_path - 1));
    }
    path.copy(address.sun_path, path.size());
    // Decrypted data goes through it: nobody else may connect.
    const mode_t mask = umask(0177);
    Listen(AF_UNIX, reinterpret_cast<const sockaddr*>(&address), sizeof address, path);
    umask(mask);
    path_ = path;
    uri_ = "nbd+unix:///?socket=" + UriEscaped(std::filesystem::absolute(path));
  }

  void ListenOnPort(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Listen(AF_INET, reinterpret_cast<const sockaddr*>(&address), sizeof address, fmt::format("127.0.0.1:{}", port));
    socklen_t length = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    uri_ = fmt::format("nbd://127.0.0.1:{}", ntohs(address.sin_port));
  }

  void Listen(int family, const sockaddr* address, socklen_t length, const std::string& name) {
    fd_ = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    if (fd_ < 0 || setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
        bind(fd_, address, length) != 0 || listen(fd_, SOMAXCONN) != 0) {
      const int error = errno;
      if (fd_ >= 0) close(fd_);
      throw SystemFailure(name, error);
    }
  }

  int fd_ = -1;
  std::string path_;
  std::string uri_;
};

/// Lies to the tool as in the tree it was built in.
std::string PluginPath() {
  std::string path = std::filesystem::read_symlink("/proc/self/exe").parent_path() / KAB_PLUGIN_DIR / kPlugin;
  if (access(path.c_str(), R_OK) != 0) throw SystemFailure(path, errno);
  return path;
}

std::vector<std::string> Command(const Tool& tool, const Options& options, const std::string& plugin,
                                 const std::string& disk) {
  std::vector<std::string> command = {"nbdkit", "--foreground", "--readonly", "--exit-with-parent", "--log=stderr"};
  if (tool.verbose) command.emplace_back("--verbose");
  command.push_back(plugin);
  command.push_back("ssd=" + options.group.ssd);
  for (const std::string& path : options.group.disks) command.push_back("disk=" + path);
  command.push_back(options.component.empty() ? "serve=" + disk : "component=" + options.component);
  // Where the keys are, not what they are: arguments are for all to see.
  for (const std::string& keyFile : tool.keyFiles) command.push_back("key-file=" + keyFile);
  if (options.group.skipUnmountCheck) command.emplace_back("skip-unmount-check=true");
  return command;
}

/// In the child: becomes nbdkit, which finds the listening socket by the convention for started services. Otherwise the
/// error goes through the pipe, which closes by itself when all is well.
[[noreturn]] void BecomeServer(std::vector<std::string>& command, int listening, int pipe) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  const int passed = listening == kFirstPassedFd ? fcntl(listening, F_SETFD, 0) : dup2(listening, kFirstPassedFd);
  if (passed >= 0 && setenv("LISTEN_FDS", "1", 1) == 0 &&
      setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1) == 0) {
    execvp(arguments[0], arguments.data());
  }
  const int error = errno;
  _exit(write(pipe, &error, sizeof error) > 0 ? 1 : 2);
}

/// SIGINT, SIGTERM, SIGHUP and SIGCHLD wait to be taken one by one, so that none comes in between.
class TakenSignals {
 public:
  TakenSignals() {
    signal(SIGCHLD, SIG_DFL);  // a caller may have left it ignored: a child's end would then be lost
    sigemptyset(&set_);
    for (const int number : {SIGINT, SIGTERM, SIGCHLD}) sigaddset(&set_, number);
    // The terminal went away: the socket is to go, too. Under nohup it is to stay.
    struct sigaction hangUp = {};
    if (sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler != SIG_IGN) sigaddset(&set_, SIGHUP);
    sigprocmask(SIG_BLOCK, &set_, &old_);
  }
  ~TakenSignals() { Restore(); }
  TakenSignals(const TakenSignals&) = delete;
  TakenSignals& operator=(const TakenSignals&) = delete;

  void Restore() const { sigprocmask(SIG_SETMASK, &old_, nullptr); }
  /// The next one; -1 when none comes in time.
  int Next(const timespec* atMost) const { return sigtimedwait(&set_, nullptr, atMost); }

 private:
  sigset_t set_;
  sigset_t old_;
};

/// nbdkit, from its start to its end.
class Server {
 public:
  /// Throws a Failure when it does not start.
  Server(std::vector<std::string> command, const Listener& listener) {
    StopIfInterrupted();  // before signals were taken one by one
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0) throw SystemFailure("pipe", errno);
    child_ = fork();
    int error = child_ < 0 ? errno : 0;
    if (child_ == 0) {
      signals_.Restore();
      // The passed socket must not fall on the pipe.
      const int writing = fcntl(pipe[1], F_DUPFD_CLOEXEC, kFirstPassedFd + 1);
      BecomeServer(command, listener.fd(), writing);
    }
    close(pipe[1]);
    if (child_ > 0 && read(pipe[0], &error, sizeof error) > 0) waitpid(child_, nullptr, 0);
    close(pipe[0]);
    if (error != 0) throw SystemFailure("nbdkit", error);
  }

  /// Serves until a signal or until nbdkit ends by itself, which is a failure.
  void Wait() {
    // nbdkit waits for clients to leave, which may be never. There is nothing to lose: it only reads.
    constexpr timespec kGrace = {1, 0};
    bool stopped = false;
    int status = 0;
    while (waitpid(child_, &status, WNOHANG) != child_) {
      const int number = signals_.Next(stopped ? &kGrace : nullptr);
      if (number == SIGINT || number == SIGTERM || number == SIGHUP) {
        stopped = true;
        kill(child_, SIGTERM);
      } else if (number < 0 && errno == EAGAIN) {
        kill(child_, SIGKILL);
      }
    }
    if (stopped || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) return;
    throw Failure(Exit::kError, WIFEXITED(status) ? fmt::format("nbdkit ended with status {}", WEXITSTATUS(status))
                                                  : fmt::format("nbdkit ended by signal {}", WTERMSIG(status)));
  }

 private:
  TakenSignals signals_;
  pid_t child_ = -1;
};

struct Export {
  std::string disk;
  uint64_t size;
  bool whole;
};

/// Opens everything once before nbdkit does, so that what is wrong gets this tool's own line and exit status.
Export Try(Tool& tool, const Options& options) {
  Group group(tool, options.group);
  if (options.component.empty()) {
    KABDiskCtx* disk = group.Chosen();
    const std::unique_ptr<View> view = ViewOfDisk(disk);
    ReplayLog(group);
    return {disk->uuidText, view->size(), view->whole()};
  }
  ReplayLog(group);
  const Component component = FindComponent(group, options.component);
  const std::unique_ptr<View> view = ViewOfComponent(group, component);
  return {component.disk->uuidText, view->size(), view->whole()};
}

Exit Run(Tool& tool, const Options& options) {
  if (options.socket.empty() == (options.port < 0)) throw Failure(Exit::kUsage, "serve: needs --socket or --port");
  if (!options.component.empty() && !options.group.disk.empty()) {
    throw Failure(Exit::kUsage, "--disk and --component exclude each other");
  }
  const std::string plugin = PluginPath();
  const Export served = Try(tool, options);
  const Listener listener(options);
  Server server(Command(tool, options, plugin, served.disk), listener);
  if (tool.json) {
    Json object = Tool::Header("serve");
    object["uri"] = listener.uri();
    object["disk"] = served.disk;
    object["component"] = options.component.empty() ? Json(nullptr) : Json(options.component);
    object["size"] = served.size;
    Tool::PrintJson(object);
  } else {
    Tool::Print(fmt::format("{}\n", listener.uri()));
  }
  std::fflush(stdout);
  server.Wait();
  return served.whole ? Exit::kClean : Exit::kDamageIncomplete;
}

}  // namespace

void AddServe(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<Options>();
  CLI::App* command = AddCommand(app, tool, "serve", "Serve a disk or a component over NBD, read-only", kDetails,
                                 [&tool, options] { return Run(tool, *options); });
  command->add_option("-s,--socket", options->socket, "a Unix socket to make")->type_name("PATH");
  command->add_option("-p,--port", options->port, "a port of 127.0.0.1, 0 for a free one")
      ->type_name("N")
      ->check(CLI::Range(0, 65535));
  command->add_option("-c,--component", options->component, "a component to serve in place of a disk")
      ->type_name("UUID");
  AddDiskChoice(command, options->group);
  AddGroupOptions(command, options->group);
}

}  // namespace tool
