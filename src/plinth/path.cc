#include "plinth/path.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kab::plinth {
namespace {

// std::filesystem would do, but builds its paths with allocations that throw.
char* JoinWorkingDirectory(const char* path) {
  char* directory = getcwd(nullptr, 0);
  if (directory == nullptr) return nullptr;
  const size_t length = strlen(directory) + 1 + strlen(path) + 1;
  auto* joined = static_cast<char*>(calloc(1, length));
  if (joined != nullptr) {
    strcpy(joined, directory);
    if (joined[1] != '\0') strcat(joined, "/");
    strcat(joined, path);
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
