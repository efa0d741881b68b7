// Small functions for texts. Any thread may call them.
#pragma once

#include <algorithm>
#include <string>

#include "softtoken/bytes.h"

namespace softtoken {

// The text in a record's field, which ends at its first NUL or with the field.
template <std::size_t size>
std::string textIn(const char (&field)[size]) {
  return {field, std::find(field, field + size, '\0')};
}

// Changes ASCII letters only, as in file extensions and names of devices.
constexpr char lower(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + ('a' - 'A')) : letter;
}

// Upper-case hexadecimal digits without separators.
inline std::string hexOf(ByteView bytes) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

}  // namespace softtoken
