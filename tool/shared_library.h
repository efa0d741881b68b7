// Shared libraries as an application loads them. shared_library_posix.cpp and shared_library_windows.cpp hold the same
// functions in the same order.
#pragma once

#include <filesystem>
#include <string>

namespace tool {

extern const char* const moduleFileName;
extern const char* const deviceLibraryFileName;

// The folder of this program's file.
std::filesystem::path programFolder();

// Loads a library as applications do. If that fails, on Windows, it searches the library's own folder too for the DLLs
// that the library needs, and explains this in `warning`. Throws Failure with the reason when the library is not
// loaded.
void* loadLibrary(const std::filesystem::path& file, std::string& warning);
void unloadLibrary(void* library);

// Returns null when the library does not export the name.
void* findFunction(void* library, const char* name);

// The file of a loaded library, as the loader reports it; empty when it reports none.
std::string fileOfFunction(void* function);
std::string fileOfLibrary(const char* fileName);

// The version in the file's resources, such as 3.6.0.0; empty when it has none, and on systems without resources.
std::string fileVersion(const std::string& file);

}  // namespace tool
