#pragma once
// The log stream: every message of the library is one call of Log with one literal, newline included.

namespace kab {

/// Writes one line on kabLogStrm; nothing before KABInit gave a stream.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kab
