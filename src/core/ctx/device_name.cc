#include "core/frame/log.h"
#include "core/frame/memory.h"
#include "kab/core.h"
#include "plinth/path.h"

uint32_t KABExtractDeviceName(const char* path, char** fullPath, char** baseName) {
  if (fullPath != nullptr) *fullPath = nullptr;
  if (baseName != nullptr) *baseName = nullptr;

  const kab::Owned<char> resolved(kab::plinth::AbsolutePath(path));
  if (resolved == nullptr) {
    kab::Log("Error: Failed to resolve device path %s\n", path);
    return KAB_GENERAL_FAILURE;
  }
  if (!kab::plinth::PathExists(resolved.get())) {
    kab::Log("Error: Device path name \"%s\" is not a valid absolute or relative path\n", path);
    return KAB_GENERAL_FAILURE;
  }
  kab::Owned<char> last(kab::plinth::LastComponent(resolved.get()));
  if (last == nullptr) {
    kab::Log("Error: Failed to allocate the device name of %s\n", path);
    return KAB_OUT_OF_MEMORY;
  }
  if (baseName != nullptr) *baseName = last.release();
  // Released on return: the full path is never usable, and callers ask only for the base name.
  if (fullPath != nullptr) *fullPath = resolved.get();
  return KAB_OK;
}
