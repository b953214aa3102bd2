#pragma once
// UUID texts: 16 bytes as stored, two lower-case digits each, hyphens after bytes 4, 6, 8 and 10.

#include <cstdint>

#include "kab/types.h"

namespace kab {

void FormatUuid(const uint8_t uuid[16], char text[KAB_UUID_TEXT_SIZE]);
/// False unless all sixteen bytes were parsed; upper-case digits are taken too.
bool ParseUuid(const char* text, uint8_t uuid[16]);

}  // namespace kab

// The printf form of sixteen bytes in a message, and its arguments.
#define KAB_UUID_FORMAT \
  "%02hhx%02hhx%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx"
#define KAB_UUID_ARGS(u)                                                                                              \
  (u)[0], (u)[1], (u)[2], (u)[3], (u)[4], (u)[5], (u)[6], (u)[7], (u)[8], (u)[9], (u)[10], (u)[11], (u)[12], (u)[13], \
      (u)[14], (u)[15]
