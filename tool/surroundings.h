// Settings of this machine and user that disturb the module: other libraries in its place, and other programs' settings
// that name it. surroundings_posix.cpp and surroundings_windows.cpp hold the same functions in the same order.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tool {

// Folders in which the system's loader looks for libraries by a user's setting.
std::vector<std::filesystem::path> librarySearchPath();

// Texts of settings that name PKCS#11 modules, with the files that they are in.
struct ModuleSetting {
  std::filesystem::path file;
  std::string program;            // whose setting it is
  std::filesystem::path library;  // as it is written there
};
std::vector<ModuleSetting> moduleSettings();

// The name of a file's or folder's owner; empty when there is no such entry, and on Windows.
std::string ownerOf(const std::filesystem::path& entry);

// Warnings about all of the above, for a module with its device library beside it.
std::vector<std::string> disturbances(const std::filesystem::path& module);

}  // namespace tool
