#include "tool/ca_folder.h"

#include "devlib/device_constants.h"
#include "objects/ca_installation.h"
#include "softtoken/certificates.h"
#include "tool/certificate_facts.h"
#include "tool/console.h"
#include "tool/shared_library.h"

namespace tool {

CaFolder::CaFolder()
    : shared_(tavrin::caFolder("one") == tavrin::caFolder("another")),
      path_(
          softtoken::textOf((shared_ ? systemPath(tavrin::caFolder("")) : programFolder().concat(tavrin::caFolder("")))
                                .make_preferred())) {
  for (const auto& [file, der] : softtoken::certificatesInFolder(path_, tavrin::caFileExtensions())) {
    // The module ignores certificates that are too large for a token.
    if (der.size() > tavrin::maximumCertificateLength) continue;
    const auto facts = readFacts(der);
    if (!facts) continue;
    ++certificateCount_;
    issuers_.insert_or_assign(tavrin::extractCommonName(facts->subject), tavrin::extractCommonName(facts->issuer));
  }
}

std::string CaFolder::missingIssuer(const std::string& issuerName, const Issuers& further) const {
  Issuers all = issuers_;
  all.insert(further.begin(), further.end());
  return tavrin::followIssuers(all, tavrin::extractCommonName(issuerName)).missing;
}

}  // namespace tool
