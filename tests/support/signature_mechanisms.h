// The mechanisms of signatures, in numbers, and what the module does for each.
#pragma once

#include "module_test.h"

struct SignatureMechanism {
  CK_MECHANISM_TYPE type;
  int hash;  // the device library's code; 0: the data is signed as it is
  bool pss;
  int verifiedHash;  // the same for verification in several parts
};

inline constexpr SignatureMechanism signatureMechanisms[] = {
    {0x1, 0, false, 0},    {0xD, 0, true, 3},     {0x6, 2, false, 2},    {0xE, 2, true, 3},    {0x40, 3, false, 3},
    {0x41, 4, false, 4},   {0x42, 5, false, 5},   {0x43, 3, true, 3},    {0x44, 4, true, 3},   {0x45, 5, true, 3},
    {0x1041, 0, false, 0}, {0x1042, 2, false, 2}, {0x1044, 3, false, 3}, {0x1045, 4, false, 4}};

inline std::string hashBegun(int code) { return "> initHash TK1 code=" + std::to_string(code) + " inst"; }
inline std::string hashUpdated(int context, const std::string& data) {
  return "> updateHash ctx=" + std::to_string(context) + " '" + data + "' inst";
}
inline std::string hashFinished(int context, int room = 64) {
  return "> finalHash ctx=" + std::to_string(context) + " room=" + std::to_string(room) + " inst";
}
// The three calls for a whole message, and the hash.
inline Lines hashed(int code, int context, const std::string& data) {
  return {hashBegun(code), hashUpdated(context, data), hashFinished(context)};
}
inline std::string hashOf(int code, const std::string& data) {
  return code == 0 ? data : "H" + std::to_string(code) + "(" + data + ")";
}
