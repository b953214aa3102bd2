#include "plinth/path.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <initializer_list>

#include "plinth/text.h"

namespace kab::plinth {
namespace {

// std::filesystem would do, but builds its paths with allocations that throw.
char* JoinWorkingDirectory(const char* path) {
  char* directory = getcwd(nullptr, 0);
  if (directory == nullptr) return nullptr;
  const size_t size = strlen(directory) + 1 + strlen(path) + 1;
  auto* joined = static_cast<char*>(calloc(1, size));
  if (joined != nullptr) {
    const bool root = directory[1] == '\0';
    for (const char* part : {static_cast<const char*>(directory), root ? "" : "/", path})
      TextConcat(joined, size, part);
  }
  free(directory);
  return joined;
}

}  // namespace

char* AbsolutePath(const char* path) {
  if (path == nullptr || *path == '\0') return nullptr;
  if (char* resolved = realpath(path, nullptr)) return resolved;
  if (errno != ENOENT) return nullptr;
  // What does not exist still has an absolute name.
  return *path == '/' ? strdup(path) : JoinWorkingDirectory(path);
}

bool PathExists(const char* path) {
  struct stat info;
  return stat(path, &info) == 0;
}

char* LastComponent(const char* path) {
  const char* slash = strrchr(path, '/');
  return strdup(slash == nullptr ? path : slash + 1);
}

}  // namespace kab::plinth
