// Finds settings of this machine and user that prevent applications from using the module: another device library in
// the search path, and wrong settings of programs. surroundings_posix.cpp and surroundings_windows.cpp hold the same
// functions in the same order.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tool {

// The folders that an environment variable adds to the loader's search path.
std::vector<std::filesystem::path> librarySearchPath();

// A text file in which a program's settings name PKCS#11 modules, in lines such as library=FILE or module: FILE.
struct SettingsFile {
  std::string program;
  std::filesystem::path file;  // may not exist
  std::string key;             // before the module's name
};

// The settings files of known programs.
std::vector<SettingsFile> knownSettingsFiles();

// The name of a file's or folder's owner; empty when there is no such entry, and on Windows.
std::string ownerOf(const std::filesystem::path& entry);

// The NSS databases in the subfolders of a folder of profiles.
std::vector<SettingsFile> nssProfiles(const std::string& program, const std::filesystem::path& folder);

// Returns a warning for each such setting. The module's device library is in the module's folder.
std::vector<std::string> disturbances(const std::filesystem::path& module);

}  // namespace tool
