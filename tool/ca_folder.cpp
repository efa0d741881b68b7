#include "tool/ca_folder.h"

#include <set>

#include "devlib/device_library.h"
#include "objects/ca_installation.h"
#include "platform/platform.h"
#include "softtoken/certificates.h"
#include "tool/certificate_facts.h"
#include "tool/module_file.h"

namespace tool {
namespace {

std::filesystem::path baseFolder() {
  if (const std::string home = platform::environmentVariable("TAVRIN_HOME"); !home.empty()) return home;
  for (const char* folder : tavrin::installFolders)
    if (platform::isFolder(folder)) return folder;
  return programFolder();
}

}  // namespace

CaFolder::CaFolder() : path_(softtoken::textOf((baseFolder() / "TavrinDSC" / "Certificates").make_preferred())) {
  for (const auto& [file, der] : softtoken::certificatesInFolder(path_, tavrin::caFileExtensions())) {
    // Larger ones fit on no token, and the module leaves them out.
    if (der.size() > sizeof TavrinCertificate::certificate) continue;
    if (const auto facts = readFacts(der))
      issuers_.insert_or_assign(tavrin::extractCommonName(facts->subject), tavrin::extractCommonName(facts->issuer));
  }
}

std::string CaFolder::missingIssuer(const std::string& issuerName) const {
  std::set<std::string> seen;
  for (std::string name = tavrin::extractCommonName(issuerName); !name.empty();) {
    const auto issuer = issuers_.find(name);
    if (issuer == issuers_.end() || !seen.insert(name).second) return name;
    if (issuer->second == name) return {};
    name = issuer->second;
  }
  return {};
}

}  // namespace tool
