// The text fields of information structures: padded with blanks, without a NUL.
#pragma once

#include <algorithm>
#include <string_view>

#include "standard/cryptoki.h"

namespace tavrin::standard {

// The longest prefix of a UTF-8 text that has at most `size` bytes and no cut character.
inline std::string_view fitting(std::string_view text, std::size_t size) {
  if (text.size() <= size) return text;
  while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) --size;
  return text.substr(0, size);
}

template <std::size_t size>
void putText(CK_UTF8CHAR (&field)[size], std::string_view text) {
  const std::string_view fits = fitting(text, size);
  std::fill(std::copy(fits.begin(), fits.end(), field), field + size, CK_UTF8CHAR{' '});
}

}  // namespace tavrin::standard
