#pragma once
// Paths. Every text handed out comes from the zero-filling allocator and is released with free (KABFree).

namespace kab::plinth {

/// The absolute form of a path, symbolic links resolved as far as the path exists; null when it cannot be resolved.
char* AbsolutePath(const char* path);
bool PathExists(const char* path);
/// The text behind the last slash; null when memory is exhausted.
char* LastComponent(const char* path);

}  // namespace kab::plinth
