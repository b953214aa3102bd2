#include "plinth/text.h"

#include <cstring>

namespace kab::plinth {

void TextCopy(char* to, size_t size, const char* from) {
  if (size == 0) return;
  const size_t length = strnlen(from, size - 1);
  std::memcpy(to, from, length);
  to[length] = '\0';
}

void TextConcat(char* to, size_t size, const char* from) {
  const size_t used = strnlen(to, size);
  TextCopy(to + used, size - used, from);
}

}  // namespace kab::plinth
