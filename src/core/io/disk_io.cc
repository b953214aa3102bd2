// One transfer on a descriptor: attempted once, reported by the caller.

#include <unistd.h>

#include "kab/core.h"

namespace {
constexpr uint32_t kRead = 1;
}

uint32_t KABDiskIO(uint32_t direction, uint32_t fd, void* buf, uint32_t length, int64_t offset) {
  const auto descriptor = static_cast<int>(fd);
  const ssize_t moved =
      direction == kRead ? pread(descriptor, buf, length, offset) : pwrite(descriptor, buf, length, offset);
  // A negative result is a failure, also for a length that reads as negative in 32 bits.
  return moved >= 0 && static_cast<uint64_t>(moved) == length ? KAB_OK : KAB_IO_ERROR;
}

uint32_t KABDiskRead(uint32_t fd, void* buf, uint32_t length, int64_t offset) {
  return KABDiskIO(kRead, fd, buf, length, offset);
}

uint32_t KABDiskWrite(uint32_t fd, const void* buf, uint32_t length, int64_t offset) {
  return KABDiskIO(0, fd, const_cast<void*>(buf), length, offset);
}
