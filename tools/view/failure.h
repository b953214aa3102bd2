#pragma once
// How work that cannot go on ends: a message for people and the tool's exit status.

#include <cstdint>
#include <stdexcept>
#include <string>

#include "exit_codes.h"

namespace tool {

/// Ends a command: the message, if any, goes to stderr, the code to the caller.
class Failure : public std::runtime_error {
 public:
  Failure(Exit code, const std::string& message) : std::runtime_error(message), code_(code) {}
  Exit code() const { return code_; }

 private:
  Exit code_;
};

/// A run-time error with the system's text for `error`.
Failure SystemFailure(const std::string& what, int error);
/// Throws std::bad_alloc for the library's status that tells of want of memory: it says nothing about a disk.
void ThrowIfNoMemory(uint32_t status);
/// The exit code of a library status other than 0.
Exit ExitOfStatus(uint32_t status);
/// The text of a library status, those outside the table included.
const char* StatusText(uint32_t status);

/// Throws for a path that holds neither a file nor a device: a FIFO would wait for its other end for ever.
void RequireFileOrDevice(const std::string& path);

}  // namespace tool
