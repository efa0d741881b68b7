#include "tool/surroundings.h"

#include <algorithm>

#include "softtoken/platform.h"
#include "tool/module_file.h"

namespace tool {
namespace {

namespace fs = std::filesystem;
using softtoken::textOf;

bool isSameFile(const fs::path& left, const fs::path& right) {
  std::error_code error;
  return !left.empty() && !right.empty() && fs::equivalent(left, right, error) && !error;
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

std::vector<std::string> disturbances(const fs::path& module) {
  std::vector<std::string> warnings;
  judgeSearchPath(module, warnings);
  judgeSettings(module, warnings);
  return warnings;
}

}  // namespace tool
