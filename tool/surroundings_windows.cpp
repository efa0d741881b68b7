#include "platform/platform.h"
#include "softtoken/platform.h"
#include "tool/surroundings.h"

namespace tool {

namespace fs = std::filesystem;

std::vector<fs::path> librarySearchPath() {
  std::vector<fs::path> folders;
  std::string rest = platform::environmentVariable("PATH");
  while (!rest.empty()) {
    const std::string folder = rest.substr(0, rest.find(';'));
    rest.erase(0, folder.size() + 1);
    if (!folder.empty()) folders.emplace_back(folder);
  }
  return folders;
}

// No setting is read on Windows: programs are configured in their own windows there.
std::vector<ModuleSetting> moduleSettings() { return {}; }

std::string ownerOf(const fs::path&) { return {}; }

}  // namespace tool
