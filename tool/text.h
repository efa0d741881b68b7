// Text for people: tables, and text that is safe to print on a terminal.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "softtoken/text.h"

namespace tool {

using softtoken::hexOf;

// Whether the text is the pattern with any digits in the place of its zeros.
bool matchesDigits(std::string_view text, std::string_view pattern);

// Replaces each byte that does not belong to well-formed UTF-8 by a replacement character.
std::string validUtf8(std::string_view text);

// One line for a terminal: valid UTF-8 without control characters (C0, C1 and DEL).
std::string printable(std::string_view text);

// Prints a table in aligned columns and makes its cells printable. All rows have as many cells as the first.
void printTable(const std::vector<std::vector<std::string>>& rows);

}  // namespace tool
