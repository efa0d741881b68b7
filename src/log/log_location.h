// The places of the log and of its level. tavrin-tool uses these names and functions too.
//
// Any thread may call the functions. They throw std::bad_alloc when memory runs out.
#pragma once

#include <string>

#include "platform/platform.h"

namespace tavrin {

// The product's key in the machine-wide registry, and the value in it that holds the log level.
inline constexpr char registryKey[] = "Software\\Quorvane Telemantix\\Tavrin";
inline constexpr char logLevelValue[] = "logLevel";

// The name of the folder that holds a folder for each program.
inline constexpr char logFolderName[] = "Quorvane Telemantix";

// The path of that folder, with "/" before its name. Empty when the system names no folder for temporary files. The
// folder is not created and may not exist.
std::string logFolder();

// The name of a day's log file, "2026-11-21.LOG", and its end.
inline constexpr char logFileExtension[] = ".LOG";
std::string logFileName(const platform::LocalTime& day);

}  // namespace tavrin
