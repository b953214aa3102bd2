#pragma once
// Bounded copies and concatenations of texts.

#include <cstddef>

namespace kab::plinth {

/// Copies `from` into `to` of `size` bytes, cut to fit and always terminated when `size` is not 0.
void TextCopy(char* to, size_t size, const char* from);
/// Appends `from` to the text in `to` of `size` bytes, cut to fit and always terminated.
void TextConcat(char* to, size_t size, const char* from);

}  // namespace kab::plinth
