// JSON for the output that scripts read. Only json.cpp includes the library that writes it.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <utility>
#include <vector>

namespace tool {

// A value that does not change after it is made. Copies share it.
class Json {
 public:
  struct Member;
  using Object = std::vector<Member>;  // in the order of output
  using Array = std::vector<Json>;

  Json(const char* text) : Json(std::string(text)) {}
  Json(const std::string& text);
  Json(bool truth);
  Json(std::int64_t number);
  template <std::integral Number>
  Json(Number number) : Json(static_cast<std::int64_t>(number)) {}
  Json(const std::vector<std::string>& texts);
  Json(const Array& values);
  Json(const Object& members);

  // Indented, without a line end. ASCII only, so that no text in it can act on a terminal; bytes that are not UTF-8
  // become replacement characters.
  std::string text() const;

 private:
  std::shared_ptr<const nlohmann::ordered_json> value_;
};

struct Json::Member {
  std::string name;
  Json value;
};

}  // namespace tool
