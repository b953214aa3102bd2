#include "failure.h"

#include <fmt/format.h>

#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <system_error>

#include "kab/core.h"

namespace tool {

void RequireFileOrDevice(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISBLK(info.st_mode)) {
    throw Failure(Exit::kError, fmt::format("{}: neither a regular file nor a block device", path));
  }
}

Failure SystemFailure(const std::string& what, int error) {
  if (error == EPIPE) return {Exit::kError, ""};  // the reader has enough: nothing to tell
  return {error == ENOMEM ? Exit::kMemory : Exit::kError,
          fmt::format("{}: {}", what, std::generic_category().message(error))};
}

const char* StatusText(uint32_t status) {
  return status < KAB_STATUS_COUNT ? KABErrorStr(status) : "Invalid device index";
}

void ThrowIfNoMemory(uint32_t status) {
  if (status == KAB_OUT_OF_MEMORY) throw std::bad_alloc();
}

Exit ExitOfStatus(uint32_t status) {
  switch (status) {
    case KAB_OK:
      return Exit::kClean;
    case KAB_OUT_OF_MEMORY:
      return Exit::kMemory;
    case KAB_BUSY:
      return Exit::kNotOurs;
    case KAB_BLOCK_INVALID:
    case KAB_NO_CHECKPOINT:
    case KAB_MAGIC_MISMATCH:
    case KAB_VERSION_MISMATCH:
    case KAB_DECOMPRESS_FAILED:
      return Exit::kDamageIncomplete;
    default:
      return Exit::kError;
  }
}

}  // namespace tool
