#include "tool/ca_folder.h"

#include <set>

#include "devlib/device_library.h"
#include "platform/platform.h"
#include "softtoken/certificates.h"
#include "tool/certificate_facts.h"
#include "tool/module_file.h"

namespace tool {
namespace {

constexpr const char* installFolders[] = {"C:/Program Files (x86)/Quorvane Telemantix/Tavrin",
                                          "C:/Program Files/Quorvane Telemantix/Tavrin"};

std::filesystem::path baseFolder() {
  if (const std::string home = platform::environmentVariable("TAVRIN_HOME"); !home.empty()) return home;
  for (const char* folder : installFolders)
    if (platform::isFolder(folder)) return folder;
  return programFolder();
}

}  // namespace

std::string commonName(const std::string& name) {
  constexpr std::string_view tag = "CN=";
  for (auto at = name.find(tag); at != std::string::npos; at = name.find(tag, at + 1)) {
    const std::string rest = name.substr(at + tag.size());
    if (std::string found = rest.substr(0, rest.find_first_of(",\r\n")); !found.empty()) return found;
  }
  return name;
}

CaFolder::CaFolder() : path_(softtoken::textOf((baseFolder() / "TavrinDSC" / "Certificates").make_preferred())) {
  for (const auto& [file, der] : softtoken::certificatesInFolder(path_, {".cer", ".der", ".pem", ".crt"})) {
    // Larger ones fit on no token, and the module leaves them out.
    if (der.size() > sizeof TavrinCertificate::certificate) continue;
    if (const auto facts = readFacts(der))
      issuers_.insert_or_assign(commonName(facts->subject), commonName(facts->issuer));
  }
}

std::string CaFolder::missingIssuer(const std::string& issuerName) const {
  std::set<std::string> seen;
  for (std::string name = commonName(issuerName); !name.empty();) {
    const auto issuer = issuers_.find(name);
    if (issuer == issuers_.end() || !seen.insert(name).second) return name;
    if (issuer->second == name) return {};
    name = issuer->second;
  }
  return {};
}

}  // namespace tool
