#include "keys.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <map>

#include "failure.h"
#include "kab/crypto.h"
#include "kab/plinth.h"

namespace tool {
namespace {

constexpr uint32_t kGetKey = 2323;
using Dek = std::array<uint8_t, KAB_DEK_SIZE>;

std::map<std::string, Dek, std::less<>> keys;

int64_t Serve(uint32_t number, const uint64_t args[6], int64_t* err) {
  if (number == kGetKey) {
    const auto found = keys.find(std::string_view(reinterpret_cast<const char*>(args[0])));
    if (found != keys.end() && args[4] >= KAB_DEK_SIZE) {
      std::copy(found->second.begin(), found->second.end(), reinterpret_cast<uint8_t*>(args[3]));
      *err = 0;
      return 0;
    }
  }
  // Not in a file: the host is asked, with this door out of the way for as long as that takes.
  plinth_SetKeyCacheSyscall(nullptr);
  errno = 0;
  int64_t result = -1;
  if (number == kGetKey) {
    result = ARVOUWAPI_KeyCacheGetKey(reinterpret_cast<const char*>(args[0]), reinterpret_cast<void*>(args[1]),
                                      reinterpret_cast<void*>(args[2]), reinterpret_cast<void*>(args[3]),
                                      static_cast<uint32_t>(args[4]), reinterpret_cast<uint32_t*>(args[5]));
  } else {
    errno = ENOSYS;  // the tool only ever fetches keys
  }
  *err = -int64_t{errno};
  plinth_SetKeyCacheSyscall(Serve);
  return result;
}

bool IsUuidText(std::string_view text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); i++) {
    const bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
    if (hyphen ? text[i] != '-' : std::isxdigit(static_cast<unsigned char>(text[i])) == 0) return false;
  }
  return true;
}

// Room for 128 digits, a line end, and one byte more, which tells a longer file.
using FileBytes = std::array<uint8_t, 2 * KAB_DEK_SIZE + 3>;

struct Wiper {
  FileBytes& bytes;
  ~Wiper() { explicit_bzero(bytes.data(), bytes.size()); }
};

int Digit(uint8_t c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void Load(const std::string& path, Dek& dek) {
  FileBytes bytes;
  const Wiper wiper{bytes};
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw SystemFailure("key file " + path, errno);
  size_t size = 0;
  ssize_t count = 0;
  while (size < bytes.size() && (count = read(fd, bytes.data() + size, bytes.size() - size)) > 0) {
    size += static_cast<size_t>(count);
  }
  const int error = errno;
  close(fd);
  if (count < 0) throw SystemFailure("key file " + path, error);

  if (size == KAB_DEK_SIZE) {
    std::copy_n(bytes.begin(), dek.size(), dek.begin());
    return;
  }
  size_t digits = size;
  while (digits > 0 && (bytes[digits - 1] == '\n' || bytes[digits - 1] == '\r')) digits--;
  bool hex = digits == 2 * dek.size();
  for (size_t i = 0; hex && i < dek.size(); i++) {
    const int high = Digit(bytes[2 * i]);
    const int low = Digit(bytes[2 * i + 1]);
    hex = high >= 0 && low >= 0;
    if (hex) dek[i] = static_cast<uint8_t>(high * 16 + low);
  }
  if (!hex) throw Failure(Exit::kUsage, fmt::format("key file {}: neither 64 bytes nor 128 hexadecimal digits", path));
}

}  // namespace

KeyFiles::KeyFiles(const std::vector<std::string>& arguments) {
  try {
    for (const std::string& argument : arguments) {
      const size_t equals = argument.find('=');
      std::string uuid = argument.substr(0, equals);
      if (equals == std::string::npos || !IsUuidText(uuid)) {
        throw Failure(Exit::kUsage, fmt::format("--key-file {}: not of the form UUID=FILE", argument));
      }
      std::transform(uuid.begin(), uuid.end(), uuid.begin(), [](unsigned char c) { return std::tolower(c); });
      Load(argument.substr(equals + 1), keys[uuid]);
    }
  } catch (...) {
    Forget();
    throw;
  }
  if (!arguments.empty()) plinth_SetKeyCacheSyscall(Serve);
}

KeyFiles::~KeyFiles() { Forget(); }

void KeyFiles::Forget() {
  plinth_SetKeyCacheSyscall(nullptr);
  for (auto& [uuid, dek] : keys) explicit_bzero(dek.data(), dek.size());
  keys.clear();
}

}  // namespace tool
