#pragma once
// The end of the process after a broken invariant of the in-memory indexes.

namespace kab::plinth {

/// Prints one line on stderr (printf-style, the newline added) and aborts.
[[noreturn]] void Panic(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kab::plinth
