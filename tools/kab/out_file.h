#pragma once
// Outputs that appear whole or not at all: written under a name beside the final one, renamed at the end.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tool {

/// A name beside `path` that becomes `path` at Commit; without that, the file or folder under it is removed.
class PendingName {
 public:
  /// A usage failure when `path` exists and `force` is not set, or is no file: a device's name is never taken from it.
  PendingName(std::string path, bool force);
  ~PendingName();
  PendingName(const PendingName&) = delete;
  PendingName& operator=(const PendingName&) = delete;

  const std::string& name() const { return name_; }
  void Commit();

 private:
  std::string path_;
  std::string name_;
  bool force_;
  bool committed_ = false;
};

/// Fails when `path` exists and something would be lost by writing there, unless `force`.
void RefuseExisting(const std::string& path, bool force);
/// Fails when `path` is there and is not a regular file: a folder, a device, a pipe.
void RefuseSpecial(const std::string& path);
bool Exists(const std::string& path);
/// Brings a file, or the names in a folder, to stable storage.
void Synchronise(const std::string& path);
/// Fails, whatever is forced, when an output is one of the command's inputs under any name.
void RefuseInput(const std::string& output, const std::vector<std::string>& inputs);

/// A file to write to: "-" is stdout, an existing device or pipe is written directly, a file becomes whole at Commit.
class OutFile {
 public:
  OutFile(const std::string& path, bool force);
  ~OutFile();
  OutFile(const OutFile&) = delete;
  OutFile& operator=(const OutFile&) = delete;

  int fd() const { return fd_; }
  bool pending() const { return pending_ != nullptr; }
  void Write(const void* data, uint64_t length);
  void Commit();

 private:
  std::string path_;
  std::unique_ptr<PendingName> pending_;
  int fd_ = -1;
};

}  // namespace tool
