// The text fields of information structures: padded with blanks, without a NUL.
#pragma once

#include <algorithm>
#include <string_view>

#include "standard/cryptoki.h"

namespace tavrin::standard {

// Stores a UTF-8 text. One that is too long is cut between two characters.
template <std::size_t size>
void putText(CK_UTF8CHAR (&field)[size], std::string_view text) {
  std::size_t length = std::min(size, text.size());
  while (length > 0 && length < text.size() && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
  std::fill(std::copy_n(text.begin(), length, field), field + size, CK_UTF8CHAR{' '});
}

}  // namespace tavrin::standard
