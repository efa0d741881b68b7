// What the module does for each signature.
#pragma once

#include "mechanism_rows.h"
#include "module_test.h"

inline std::string hashBegun(int code) { return "> initHash TK1 code=" + std::to_string(code) + " inst"; }
inline std::string hashUpdated(int context, const std::string& data) {
  return "> updateHash ctx=" + std::to_string(context) + " '" + data + "' inst";
}
inline std::string hashFinished(int context, int room = 64) {
  return "> finalHash ctx=" + std::to_string(context) + " room=" + std::to_string(room) + " inst";
}
inline std::string hashOf(int code, const std::string& data) {
  return code == 0 ? data : "H" + std::to_string(code) + "(" + data + ")";
}
