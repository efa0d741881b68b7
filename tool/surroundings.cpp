#include "tool/surroundings.h"

#include <algorithm>
#include <fstream>

#include "softtoken/platform.h"
#include "tool/console.h"
#include "tool/shared_library.h"

namespace tool {
namespace {

namespace fs = std::filesystem;
using softtoken::textOf;

// A module that a setting names.
struct ModuleSetting {
  std::string program;
  fs::path file;
  fs::path library;  // as it is written there
};

bool isSameFile(const fs::path& left, const fs::path& right) {
  std::error_code error;
  return !left.empty() && !right.empty() && fs::equivalent(left, right, error) && !error;
}

std::string trimmed(std::string text) {
  text.erase(0, text.find_first_not_of(" \t\""));
  text.erase(text.find_last_not_of(" \t\r\";") + 1);
  return text;
}

void addSettings(const SettingsFile& settingsFile, std::vector<ModuleSetting>& settings) {
  std::ifstream stream(settingsFile.file);
  for (std::string line; std::getline(stream, line);) {
    const std::string text = trimmed(line);
    if (!text.starts_with(settingsFile.key)) continue;
    std::string value = trimmed(text.substr(settingsFile.key.size()));
    if (value.empty() || (value[0] != '=' && value[0] != ':')) continue;
    value = trimmed(value.substr(1));
    if (!value.empty()) settings.push_back({settingsFile.program, settingsFile.file, softtoken::pathOf(value)});
  }
}

// Java's list of providers contains the paths of configuration files, each of which names a PKCS#11 module.
void addJavaSettings(std::vector<ModuleSetting>& settings) {
  const std::string java = environmentText("JAVA_HOME");
  if (java.empty()) return;
  std::ifstream stream(softtoken::pathOf(java) / "conf" / "security" / "java.security");
  const std::string provider = "SunPKCS11 ";
  for (std::string line; std::getline(stream, line);) {
    const auto at = line.find(provider);
    if (!line.starts_with("security.provider.") || at == std::string::npos) continue;
    const fs::path configuration = softtoken::pathOf(trimmed(line.substr(at + provider.size())));
    addSettings({"Java", configuration, "library"}, settings);
  }
}

std::vector<ModuleSetting> moduleSettings() {
  std::vector<ModuleSetting> settings;
  for (const SettingsFile& file : knownSettingsFiles()) {
    // A relative path means that the variable with the user's folder is not set.
    if (file.file.is_absolute()) addSettings(file, settings);
  }
  addJavaSettings(settings);
  return settings;
}

void judgeSearchPath(const fs::path& module, std::vector<std::string>& warnings) {
  const fs::path own = module.parent_path() / deviceLibraryFileName;
  std::error_code error;
  if (!fs::exists(own, error)) return;
  for (const fs::path& folder : librarySearchPath()) {
    const fs::path file = folder / deviceLibraryFileName;
    if (fs::exists(file, error) && !isSameFile(file, own)) {
      warnings.push_back("another device library is in the search path: " + textOf(file) +
                         "; programs may load it in place of " + textOf(own));
    }
  }
}

void judgeSettings(const fs::path& module, std::vector<std::string>& warnings) {
  const std::vector<ModuleSetting> settings = moduleSettings();
  const auto namesModule = [&](const ModuleSetting& setting) { return isSameFile(setting.library, module); };
  const bool inP11Kit = std::ranges::any_of(
      settings, [&](const ModuleSetting& setting) { return setting.program == "p11-kit" && namesModule(setting); });
  for (const ModuleSetting& setting : settings) {
    std::error_code error;
    if (setting.library.is_absolute() && !fs::exists(setting.library, error)) {
      warnings.push_back(setting.program + "'s setting in " + textOf(setting.file) + " names a missing file, " +
                         textOf(setting.library));
    }
    const bool proxied = std::ranges::any_of(settings, [&](const ModuleSetting& other) {
      return other.file == setting.file && textOf(other.library.filename()).starts_with("p11-kit");
    });
    if (inP11Kit && setting.program != "p11-kit" && proxied && namesModule(setting)) {
      warnings.push_back(setting.program + "'s setting in " + textOf(setting.file) +
                         " loads the module twice, directly and through p11-kit; remove one of the two");
    }
  }
}

}  // namespace

std::vector<SettingsFile> nssProfiles(const std::string& program, const fs::path& folder) {
  std::vector<SettingsFile> files;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
    files.push_back({program, entry->path() / "pkcs11.txt", "library"});
  return files;
}

std::vector<std::string> disturbances(const fs::path& module) {
  std::vector<std::string> warnings;
  judgeSearchPath(module, warnings);
  judgeSettings(module, warnings);
  return warnings;
}

}  // namespace tool
