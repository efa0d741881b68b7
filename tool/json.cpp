#include "tool/json.h"

#include <nlohmann/json.hpp>

namespace tool {

using Value = nlohmann::ordered_json;

Json::Json(const std::string& text) : value_(std::make_shared<Value>(text)) {}
Json::Json(bool truth) : value_(std::make_shared<Value>(truth)) {}
Json::Json(std::int64_t number) : value_(std::make_shared<Value>(number)) {}
Json::Json(const std::vector<std::string>& texts) : value_(std::make_shared<Value>(texts)) {}

Json::Json(const Array& values) {
  Value array = Value::array();
  for (const Json& value : values) array.push_back(*value.value_);
  value_ = std::make_shared<Value>(std::move(array));
}

Json::Json(const Object& members) {
  Value object = Value::object();
  for (const Member& member : members) object[member.name] = *member.value.value_;
  value_ = std::make_shared<Value>(std::move(object));
}

std::string Json::text() const { return value_->dump(2, ' ', true, Value::error_handler_t::replace); }

}  // namespace tool
