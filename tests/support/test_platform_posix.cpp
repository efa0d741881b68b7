#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "test_platform.h"

namespace testPlatform {
namespace {

std::filesystem::path logLevelFile() {
  return std::filesystem::path(std::getenv("TAVRIN_REGISTRY")) / "Software/Quorvane Telemantix/Tavrin/logLevel";
}

void writeLogLevel(const std::string& text) {
  std::filesystem::create_directories(logLevelFile().parent_path());
  std::ofstream(logLevelFile()) << text;
}

}  // namespace

int processId() { return getpid(); }

void setEnvironment(const char* name, const char* value) {
  if (value) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
}

void useFolder(const std::string& folder) {
  useTemporaryFolder(folder);
  setEnvironment("TAVRIN_REGISTRY", (folder + "/registry").c_str());
}

void useTemporaryFolder(const std::string& folder) { setEnvironment("TMPDIR", folder.c_str()); }

void setLogLevel(std::optional<std::uint32_t> level) {
  if (level) {
    writeLogLevel(std::to_string(*level));
  } else {
    std::filesystem::remove(logLevelFile());
  }
}

std::vector<OddLogLevel> oddLogLevels() {
  return {{"a text with a line end", [] { writeLogLevel("3\n"); }, true, true}};
}

bool appendsAtomically() { return true; }

std::string programFolder() { return std::filesystem::read_symlink("/proc/self/exe").parent_path().string(); }

}  // namespace testPlatform
