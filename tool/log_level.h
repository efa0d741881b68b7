// The log level: its meaning, and setting it where the module reads it. log_level_posix.cpp and log_level_windows.cpp
// hold the same function.
#pragma once

#include <string>

#include "log/log.h"

namespace tool {

// Sets the level for all users of this machine. Running programs use it within a tenth of a second. Throws Failure
// when this user lacks the permission.
void setLogLevel(int level);

// What the module writes at a level, in one word.
inline const char* levelMeaning(int level) {
  if (level >= tavrin::debugLevel) return "everything";
  return level == tavrin::errorLevel ? "errors" : "nothing";
}

// The level and its meaning.
inline std::string levelText(int level) { return std::to_string(level) + " (" + levelMeaning(level) + ")"; }

}  // namespace tool
