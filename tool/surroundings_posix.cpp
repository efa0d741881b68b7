#include <pwd.h>
#include <sys/stat.h>

#include <fstream>

#include "platform/platform.h"
#include "tool/surroundings.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

std::string trimmed(std::string text) {
  text.erase(0, text.find_first_not_of(" \t\""));
  text.erase(text.find_last_not_of(" \t\r\";") + 1);
  return text;
}

std::vector<fs::path> entriesOf(const fs::path& folder) {
  std::vector<fs::path> entries;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
    entries.push_back(entry->path());
  return entries;
}

// The libraries in lines such as library=/usr/lib/module.so or module: module.so.
void addSettings(const fs::path& file, const std::string& program, const std::string& key,
                 std::vector<ModuleSetting>& settings) {
  std::ifstream stream(file);
  for (std::string line; std::getline(stream, line);) {
    const std::string text = trimmed(line);
    if (!text.starts_with(key)) continue;
    std::string value = trimmed(text.substr(key.size()));
    if (value.empty() || (value[0] != '=' && value[0] != ':')) continue;
    value = trimmed(value.substr(1));
    if (!value.empty()) settings.push_back({file, program, value});
  }
}

// Java's list of providers names the configurations of its PKCS#11 modules.
void addJavaSettings(const fs::path& securityFile, std::vector<ModuleSetting>& settings) {
  std::ifstream stream(securityFile);
  const std::string provider = "SunPKCS11 ";
  for (std::string line; std::getline(stream, line);) {
    const auto at = line.find(provider);
    if (line.starts_with("security.provider.") && at != std::string::npos)
      addSettings(trimmed(line.substr(at + provider.size())), "Java", "library", settings);
  }
}

}  // namespace

std::vector<fs::path> librarySearchPath() {
  std::vector<fs::path> folders;
  std::string rest = platform::environmentVariable("LD_LIBRARY_PATH");
  while (!rest.empty()) {
    const std::string folder = rest.substr(0, rest.find(':'));
    rest.erase(0, folder.size() + 1);
    folders.emplace_back(folder.empty() ? "." : folder);
  }
  return folders;
}

std::vector<ModuleSetting> moduleSettings() {
  std::vector<ModuleSetting> settings;
  const fs::path home = platform::environmentVariable("HOME");
  for (const fs::path& folder :
       {fs::path("/usr/share/p11-kit/modules"), fs::path("/etc/pkcs11/modules"), home / ".config/pkcs11/modules"}) {
    for (const fs::path& file : entriesOf(folder))
      if (file.extension() == ".module") addSettings(file, "p11-kit", "module", settings);
  }
  addSettings(home / ".pki/nssdb/pkcs11.txt", "NSS", "library", settings);
  for (const fs::path& profile : entriesOf(home / ".mozilla/firefox"))
    addSettings(profile / "pkcs11.txt", "Firefox", "library", settings);
  if (const std::string java = platform::environmentVariable("JAVA_HOME"); !java.empty())
    addJavaSettings(fs::path(java) / "conf/security/java.security", settings);
  return settings;
}

std::string ownerOf(const fs::path& entry) {
  struct stat facts {};
  if (::stat(entry.c_str(), &facts) != 0) return {};
  const passwd* owner = ::getpwuid(facts.st_uid);
  return owner ? owner->pw_name : "user " + std::to_string(facts.st_uid);
}

}  // namespace tool
