#include "support/run_tool.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <stdexcept>

extern char** environ;

namespace kab_test {
namespace {

std::vector<char*> Pointers(const std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (const std::string& text : strings) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

/// A stream of the program, kept in memory.
class Captured {
 public:
  Captured() : fd_(memfd_create("stream", MFD_CLOEXEC)) {
    if (fd_ < 0) throw std::runtime_error("no memory for a program's output");
  }
  ~Captured() { close(fd_); }
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;

  int fd() const { return fd_; }
  std::string Text(size_t most) const {
    std::string text(most, '\0');
    const ssize_t length = pread(fd_, text.data(), most, 0);
    text.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return text;
  }

 private:
  int fd_;
};

}  // namespace

ToolRun RunTool(const std::vector<std::string>& command, const std::vector<std::string>& environment,
                const ToolLimits& limits) {
  const Captured out;
  const Captured err;
  std::vector<std::string> variables = environment;
  for (char** variable = environ; *variable != nullptr; ++variable) variables.emplace_back(*variable);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out.fd(), 1);
  posix_spawn_file_actions_adddup2(&actions, err.fd(), 2);
  pid_t pid = 0;
  const auto start = std::chrono::steady_clock::now();
  const int error =
      posix_spawn(&pid, command[0].c_str(), &actions, nullptr, Pointers(command).data(), Pointers(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error(command[0] + ": cannot be run");

  ToolRun run;
  const int handle = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  pollfd ended = {handle, POLLIN, 0};
  if (handle < 0 || poll(&ended, 1, static_cast<int>(limits.seconds * 1000)) != 1) {
    run.timedOut = true;
    kill(pid, SIGKILL);
  }
  if (handle >= 0) close(handle);
  int status = 0;
  rusage usage = {};
  wait4(pid, &status, 0, &usage);
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.exited = WIFEXITED(status);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  run.peakKiB = usage.ru_maxrss;
  run.out = out.Text(limits.keptOutput);
  run.err = err.Text(limits.keptOutput);
  return run;
}

void LimitTools(unsigned long long fileBytes, unsigned long long memoryBytes) {
  const rlimit file = {fileBytes, fileBytes};
  setrlimit(RLIMIT_FSIZE, &file);
  const rlimit core = {0, 0};
  setrlimit(RLIMIT_CORE, &core);
#if !defined(__SANITIZE_ADDRESS__)  // whose shadow is terabytes of address space
  const rlimit memory = {memoryBytes, memoryBytes};
  setrlimit(RLIMIT_AS, &memory);
#else
  (void)memoryBytes;
#endif
}

std::vector<std::string> SanitizerOptions() {
  const std::string status = "exitcode=" + std::to_string(kSanitizerStatus);
  return {"ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1:hard_rss_limit_mb=1024:" + status,
          "LSAN_OPTIONS=" + status, "UBSAN_OPTIONS=print_stacktrace=1:" + status};
}

}  // namespace kab_test
