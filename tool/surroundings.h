// Settings of this machine and user that disturb the module: other libraries in its place, and other programs' settings
// that name it. surroundings_posix.cpp and surroundings_windows.cpp hold the same functions in the same order.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tool {

// Folders in which the system's loader looks for libraries by a user's setting.
std::vector<std::filesystem::path> librarySearchPath();

// A text file in which a program's settings name PKCS#11 modules, in lines such as library=FILE or module: FILE.
struct SettingsFile {
  std::string program;
  std::filesystem::path file;  // may not exist
  std::string key;             // before the module's name
};

// The files of programs that keep them in known places.
std::vector<SettingsFile> knownSettingsFiles();

// The name of a file's or folder's owner; empty when there is no such entry, and on Windows.
std::string ownerOf(const std::filesystem::path& entry);

// The NSS databases in the subfolders of a folder of profiles.
std::vector<SettingsFile> nssProfiles(const std::string& program, const std::filesystem::path& folder);

// Warnings about all of the above, for a module with its device library beside it.
std::vector<std::string> disturbances(const std::filesystem::path& module);

}  // namespace tool
