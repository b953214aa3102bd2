#include "plinth/key_cache.h"

#include <errno.h>
#include <keyutils.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "kab/plinth.h"

namespace kab::plinth {
namespace {

constexpr const char* kKeyType = "user";
constexpr const char* kKeyPrefix = "arvo:";
constexpr int64_t kDekSize = 64;

// A key that the kernel keyring holds in place of the host's cache; anything but 64 bytes is not such a key.
int64_t GetFromKeyring(const uint64_t args[6], int64_t* err) {
  const auto* name = reinterpret_cast<const char*>(args[0]);
  auto* dek = reinterpret_cast<char*>(args[3]);
  const auto length = static_cast<uint32_t>(args[4]);
  char description[128];
  const int written = snprintf(description, sizeof description, "%s%s", kKeyPrefix, name);
  if (written < 0 || static_cast<size_t>(written) >= sizeof description) {
    *err = -EINVAL;
    return -1;
  }
  const key_serial_t serial = request_key(kKeyType, description, nullptr, 0);
  if (serial == -1) {
    *err = -errno;
    return -1;
  }
  const long size = keyctl_read(serial, nullptr, 0);
  if (size != kDekSize || length < kDekSize || keyctl_read(serial, dek, length) != kDekSize) {
    *err = -EINVAL;
    return -1;
  }
  return 0;
}

int64_t DefaultSyscall(uint32_t number, const uint64_t args[6], int64_t* err) {
  *err = 0;
  const long result = syscall(static_cast<long>(number), args[0], args[1], args[2], args[3], args[4], args[5]);
  if (result != -1) return result;
  if (errno == ENOSYS && number == kKeyCacheGet) return GetFromKeyring(args, err);
  *err = -errno;
  return -1;
}

plinth_KeyCacheSyscallFn keyCacheSyscall = DefaultSyscall;

}  // namespace

int64_t KeyCacheCallHost(uint32_t number, const uint64_t args[6], int64_t* err) {
  *err = 0;
  return keyCacheSyscall(number, args, err);
}

}  // namespace kab::plinth

void plinth_SetKeyCacheSyscall(plinth_KeyCacheSyscallFn fn) {
  kab::plinth::keyCacheSyscall = fn != nullptr ? fn : kab::plinth::DefaultSyscall;
}
