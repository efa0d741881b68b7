// JSON values and their text, for the output that scripts read.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tool {

class Json {
 public:
  using Array = std::vector<Json>;
  using Object = std::vector<std::pair<std::string, Json>>;  // in the order of writing

  Json(bool value) : value_(value) {}
  Json(int value) : value_(static_cast<std::int64_t>(value)) {}
  Json(std::int64_t value) : value_(value) {}
  Json(std::string value) : value_(std::move(value)) {}
  Json(const char* value) : value_(std::string(value)) {}
  Json(Array value) : value_(std::move(value)) {}
  Json(Object value) : value_(std::move(value)) {}

  // UTF-8, whatever bytes the texts hold; indented, without a line end behind it.
  std::string text() const { return text(0); }

 private:
  std::string text(std::size_t depth) const;

  std::variant<bool, std::int64_t, std::string, Array, Object> value_;
};

}  // namespace tool
