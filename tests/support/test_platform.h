// The tests' access to the operating system: test_platform_windows.cpp and test_platform_posix.cpp.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace testPlatform {

// Sets an environment variable of this process; null removes it.
void setEnvironment(const char* name, const char* value);

// A new folder below the usual one for temporary files.
inline std::filesystem::path freshFolder(const std::string& name) {
  auto folder =
      std::filesystem::temp_directory_path() / ("tavrin-" + name + "-" + std::to_string(std::random_device()()));
  std::filesystem::create_directories(folder);
  return folder;
}

// Sends this process to `folder` for its temporary files.
inline void useTemporaryFolder(const std::filesystem::path& folder) {
  for (const char* name : {"TMPDIR", "TMP", "TEMP"}) setEnvironment(name, folder.string().c_str());
}
// The same, and for its registry, where that is a folder.
inline void useFolder(const std::filesystem::path& folder) {
  useTemporaryFolder(folder);
  setEnvironment("TAVRIN_REGISTRY", (folder / "registry").string().c_str());
}

// The registry's log level as a 32-bit value; nothing removes it.
void setLogLevel(std::optional<std::uint32_t> level);

// Log levels that this platform's registry can hold in other ways than as a 32-bit value.
struct OddLogLevel {
  std::function<void()> set;
  bool errorsLogged, callsLogged;
};
std::vector<OddLogLevel> oddLogLevels();

// Whether lines that several threads append to a file stay whole, if each is one write. Under Wine, which looks for the
// end of the file and writes in two steps, they do not.
bool appendsAtomically();

// Does `work` in the child of a fork, and waits for it: what the work returned, or 101 if it crashed. -1 without fork.
int exitCodeOfFork(const std::function<int()>& work);

// Starts this program once more, with other arguments, none of which has blanks or quotes.
std::intptr_t startSelf(const std::vector<std::string>& arguments);
// Kills a process that startSelf started, and waits until it has ended. False when it had ended before.
bool killProcess(std::intptr_t process);

// What such a process has in its memory, all that can be read, block by block.
void forEachMemoryBlock(std::intptr_t process, const std::function<void(std::span<const std::uint8_t>)>& look);

// From then on, writing to a file beyond this size fails, after what fits has been written; nothing lifts the limit.
// False where the system has no such limit.
bool limitFileSize(std::optional<std::size_t> size);

}  // namespace testPlatform
