#include "tool/text.h"

#include <algorithm>
#include <iostream>

namespace tool {
namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD";

unsigned byteAt(std::string_view text, std::size_t at) { return static_cast<unsigned char>(text[at]); }

// The lead bytes of well-formed UTF-8 and what may follow directly; further bytes are 80 to BF.
struct LeadRow {
  unsigned first, last;
  std::size_t length;
  unsigned lowest, highest;
};
constexpr LeadRow leads[] = {{0x00, 0x7F, 1, 0x00, 0xFF}, {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
                             {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
                             {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F}};

// The number of bytes of the text's first character; 0 when it is not well-formed.
std::size_t characterLength(std::string_view text) {
  const unsigned lead = byteAt(text, 0);
  const auto* row = std::ranges::find_if(leads, [&](const LeadRow& r) { return lead >= r.first && lead <= r.last; });
  if (row == std::end(leads) || row->length > text.size()) return 0;
  if (row->length == 1) return 1;
  if (byteAt(text, 1) < row->lowest || byteAt(text, 1) > row->highest) return 0;
  for (std::size_t i = 2; i < row->length; ++i)
    if ((byteAt(text, i) & 0xC0) != 0x80) return 0;
  return row->length;
}

// C0 and C1 controls, the latter in their two-byte form.
bool isControl(std::string_view character) {
  if (character.size() == 1) return byteAt(character, 0) < 0x20 || byteAt(character, 0) == 0x7F;
  return character.size() == 2 && byteAt(character, 0) == 0xC2 && byteAt(character, 1) < 0xA0;
}

// The number of columns that UTF-8 text takes on a terminal, counting one for each character.
std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }));
}

}  // namespace

bool matchesDigits(std::string_view text, std::string_view pattern) {
  return std::ranges::equal(text, pattern, [](char letter, char expected) {
    return expected == '0' ? letter >= '0' && letter <= '9' : letter == expected;
  });
}

std::string validUtf8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    result += length == 0 ? replacement : text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

std::string printable(std::string_view text) {
  // Most texts are plain ASCII.
  if (std::ranges::all_of(text, [](char letter) { return letter >= 0x20 && letter < 0x7F; })) return std::string(text);
  const std::string valid = validUtf8(text);
  std::string result;
  result.reserve(valid.size());
  for (std::string_view rest = valid; !rest.empty();) {
    const std::string_view character = rest.substr(0, characterLength(rest));
    if (character == "\t") {
      result += ' ';
    } else {
      result += isControl(character) ? replacement : character;
    }
    rest.remove_prefix(character.size());
  }
  return result;
}

void printTable(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths(rows.front().size());
  std::vector<std::vector<std::string>> shown = rows;
  for (auto& row : shown) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      row[i] = printable(row[i]);
      widths[i] = std::max(widths[i], widthOf(row[i]));
    }
  }
  for (const auto& row : shown) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) line += row[i] + std::string(widths[i] - widthOf(row[i]) + 2, ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    std::cout << line << '\n';
  }
}

}  // namespace tool
