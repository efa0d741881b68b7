#include "softtoken/platform.h"
#include "tool/console.h"
#include "tool/surroundings.h"

namespace tool {

namespace fs = std::filesystem;

std::vector<fs::path> librarySearchPath() {
  std::vector<fs::path> folders;
  std::string rest = environmentText("PATH");
  while (!rest.empty()) {
    const std::string folder = rest.substr(0, rest.find(';'));
    rest.erase(0, folder.size() + 1);
    if (!folder.empty()) folders.push_back(softtoken::pathOf(folder));
  }
  return folders;
}

std::vector<SettingsFile> knownSettingsFiles() {
  const fs::path profiles = softtoken::pathOf(environmentText("APPDATA"));
  std::vector<SettingsFile> files = nssProfiles("Firefox", profiles / "Mozilla" / "Firefox" / "Profiles");
  const std::vector<SettingsFile> mail = nssProfiles("Thunderbird", profiles / "Thunderbird" / "Profiles");
  files.insert(files.end(), mail.begin(), mail.end());
  return files;
}

std::string ownerOf(const fs::path&) { return {}; }

}  // namespace tool
