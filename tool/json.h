// JSON for the output that scripts read.
#pragma once

#include <nlohmann/json.hpp>

namespace tool {

using Json = nlohmann::ordered_json;

// Indented, without a line end. ASCII only, so that no text in it can act on a terminal; bytes that are not UTF-8
// become replacement characters.
inline std::string jsonText(const Json& value) { return value.dump(2, ' ', true, Json::error_handler_t::replace); }

}  // namespace tool
