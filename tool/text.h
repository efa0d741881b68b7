// Text for people: tables, hexadecimal, and what may safely reach a terminal.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "softtoken/bytes.h"

namespace tool {

// Upper-case digits without separators.
std::string hexOf(softtoken::ByteView bytes);

// Every byte that is no part of well-formed UTF-8 becomes a replacement character.
std::string validUtf8(std::string_view text);

// One line for a terminal: valid UTF-8 without control characters (C0, C1 and DEL).
std::string printable(std::string_view text);

// Prints a table in columns, its cells made printable. All rows have as many cells as the first.
void printTable(const std::vector<std::vector<std::string>>& rows);

}  // namespace tool
