#include "core/frame/uuid_text.h"

#include <cstdio>

namespace kab {

void FormatUuid(const uint8_t uuid[16], char text[KAB_UUID_TEXT_SIZE]) {
  std::snprintf(text, KAB_UUID_TEXT_SIZE, KAB_UUID_FORMAT, KAB_UUID_ARGS(uuid));
}

bool ParseUuid(const char* text, uint8_t uuid[16]) {
  return std::sscanf(text, KAB_UUID_FORMAT, &uuid[0], &uuid[1], &uuid[2], &uuid[3], &uuid[4], &uuid[5], &uuid[6],
                     &uuid[7], &uuid[8], &uuid[9], &uuid[10], &uuid[11], &uuid[12], &uuid[13], &uuid[14],
                     &uuid[15]) == 16;
}

}  // namespace kab
