#include "out_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "tool.h"

namespace tool {

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

void RefuseExisting(const std::string& path, bool force) {
  struct stat info;
  const bool stream = stat(path.c_str(), &info) == 0 && (S_ISCHR(info.st_mode) || S_ISFIFO(info.st_mode));
  if (!force && !stream && Exists(path))
    throw Failure(Exit::kUsage, fmt::format("{} exists; --force replaces it", path));
}

void RefuseSpecial(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    throw Failure(Exit::kUsage, fmt::format("{}: neither new nor a regular file", path));
  }
}

void Synchronise(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw SystemFailure(path, errno);
  const int result = fsync(fd);
  const int error = errno;
  close(fd);
  if (result != 0) throw SystemFailure(path, error);
}

void RefuseInput(const std::string& output, const std::vector<std::string>& inputs) {
  struct stat out;
  if (stat(output.c_str(), &out) != 0) return;
  for (const std::string& input : inputs) {
    struct stat in;
    if (stat(input.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
      throw Failure(Exit::kUsage, fmt::format("{} is what this command reads from", output));
    }
  }
}

PendingName::PendingName(std::string path, bool force)
    : path_(std::move(path)), name_(fmt::format("{}.kab-{}", path_, getpid())), force_(force) {
  RefuseExisting(path_, force_);
  RefuseSpecial(path_);
  if (Exists(name_)) throw Failure(Exit::kError, fmt::format("{} is in the way", name_));
}

PendingName::~PendingName() {
  if (committed_ || unlink(name_.c_str()) == 0) return;  // a file goes without memory
  try {
    std::error_code ignored;
    std::filesystem::remove_all(name_, ignored);
  } catch (const std::bad_alloc&) {  // the folder stays, under a name that says what it is
  }
}

void PendingName::Commit() {
  // Someone may have made the file meanwhile; not every file system can refuse by itself.
  int result = renameat2(AT_FDCWD, name_.c_str(), AT_FDCWD, path_.c_str(), force_ ? 0 : RENAME_NOREPLACE);
  if (result != 0 && (errno == EINVAL || errno == ENOSYS)) {
    RefuseExisting(path_, force_);
    result = rename(name_.c_str(), path_.c_str());
  }
  if (result != 0) throw SystemFailure(path_, errno);
  committed_ = true;
  const size_t slash = path_.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
  const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    fsync(fd);
    close(fd);
  }
}

OutFile::OutFile(const std::string& path, bool force) : path_(path) {
  struct stat info;
  if (path == "-") {
    fd_ = dup(STDOUT_FILENO);
  } else if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    RefuseExisting(path, force);
    fd_ = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  } else {
    pending_ = std::make_unique<PendingName>(path, force);
    fd_ = open(pending_->name().c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  }
  if (fd_ >= 0) return;

  throw SystemFailure(path, errno);
}

OutFile::~OutFile() {
  if (fd_ >= 0) close(fd_);
}

void OutFile::Write(const void* data, uint64_t length) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  while (length > 0) {
    StopIfInterrupted();
    const ssize_t written = write(fd_, bytes, length);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw SystemFailure(path_ == "-" ? "stdout" : path_, errno);
    bytes += written;
    length -= static_cast<uint64_t>(written);
  }
}

void OutFile::Commit() {
  // Pipes and terminals cannot be synchronised, and need not be.
  if (fsync(fd_) != 0 && pending_ != nullptr) throw SystemFailure(path_, errno);
  const int closed = close(fd_);
  fd_ = -1;
  if (closed != 0) throw SystemFailure(path_, errno);
  if (pending_ != nullptr) pending_->Commit();
}

}  // namespace tool
