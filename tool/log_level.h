// Setting the log level where the module reads it. log_level_posix.cpp and log_level_windows.cpp hold the same
// function.
#pragma once

namespace tool {

// For all users of this machine, at once for running programs too. Throws Failure when this user may not.
void setLogLevel(int level);

}  // namespace tool
