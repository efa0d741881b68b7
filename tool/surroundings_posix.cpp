#include <pwd.h>
#include <sys/stat.h>

#include "tool/console.h"
#include "tool/surroundings.h"

namespace tool {

namespace fs = std::filesystem;

std::vector<fs::path> librarySearchPath() {
  std::vector<fs::path> folders;
  std::string rest = environmentText("LD_LIBRARY_PATH");
  while (!rest.empty()) {
    const std::string folder = rest.substr(0, rest.find(':'));
    rest.erase(0, folder.size() + 1);
    folders.emplace_back(folder.empty() ? "." : folder);
  }
  return folders;
}

std::vector<SettingsFile> knownSettingsFiles() {
  const fs::path home = environmentText("HOME");
  std::vector<SettingsFile> files = nssProfiles("Firefox", home / ".mozilla/firefox");
  const std::vector<SettingsFile> mail = nssProfiles("Thunderbird", home / ".thunderbird");
  files.insert(files.end(), mail.begin(), mail.end());
  files.push_back({"NSS", home / ".pki/nssdb/pkcs11.txt", "library"});
  for (const fs::path& folder :
       {fs::path("/usr/share/p11-kit/modules"), fs::path("/etc/pkcs11/modules"), home / ".config/pkcs11/modules"}) {
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
      if (entry->path().extension() == ".module") files.push_back({"p11-kit", entry->path(), "module"});
  }
  return files;
}

std::string ownerOf(const fs::path& entry) {
  struct stat facts {};
  if (::stat(entry.c_str(), &facts) != 0) return {};
  const passwd* owner = ::getpwuid(facts.st_uid);
  return owner ? owner->pw_name : "user " + std::to_string(facts.st_uid);
}

}  // namespace tool
