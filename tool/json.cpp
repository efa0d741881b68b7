#include "tool/json.h"

#include <cstdio>

#include "tool/text.h"

namespace tool {
namespace {

std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char letter : validUtf8(text)) {
    if (letter == '"' || letter == '\\') {
      result += {'\\', letter};
    } else if (static_cast<unsigned char>(letter) < 0x20) {
      char code[8];
      std::snprintf(code, sizeof code, "\\u%04X", static_cast<unsigned>(letter));
      result += code;
    } else {
      result += letter;
    }
  }
  return result + '"';
}

std::string lines(const std::vector<std::string>& items, char open, char close, std::size_t depth) {
  if (items.empty()) return {open, close};
  std::string result(1, open);
  const char* separator = "\n";
  for (const std::string& item : items) {
    result += separator + std::string(2 * depth + 2, ' ') + item;
    separator = ",\n";
  }
  return result + '\n' + std::string(2 * depth, ' ') + close;
}

}  // namespace

std::string Json::text(std::size_t depth) const {
  if (const auto* truth = std::get_if<bool>(&value_)) return *truth ? "true" : "false";
  if (const auto* number = std::get_if<std::int64_t>(&value_)) return std::to_string(*number);
  if (const auto* string = std::get_if<std::string>(&value_)) return quoted(*string);
  std::vector<std::string> items;
  if (const auto* array = std::get_if<Array>(&value_)) {
    for (const Json& item : *array) items.push_back(item.text(depth + 1));
    return lines(items, '[', ']', depth);
  }
  for (const auto& [name, member] : std::get<Object>(value_))
    items.push_back(quoted(name) + ": " + member.text(depth + 1));
  return lines(items, '{', '}', depth);
}

}  // namespace tool
