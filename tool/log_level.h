// Setting the log level where the module reads it. log_level_posix.cpp and log_level_windows.cpp hold the same
// function.
#pragma once

namespace tool {

// Sets the level for all users of this machine. Running programs use it within a tenth of a second. Throws Failure
// when this user lacks the permission.
void setLogLevel(int level);

}  // namespace tool
