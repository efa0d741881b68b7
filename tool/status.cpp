#include "tool/status.h"

#include "log/log.h"
#include "objects/ca_installation.h"
#include "softtoken/platform.h"
#include "tool/anonymise.h"
#include "tool/ca_folder.h"
#include "tool/status_findings.h"
#include "tool/surroundings.h"

namespace tool {
namespace {

// The issuers of a token's certificates.
CaFolder::Issuers issuersOn(const ProbedToken& token) {
  CaFolder::Issuers issuers;
  for (const StoredCertificate& certificate : token.certificates) {
    if (const auto facts = readFacts(certificate.der)) {
      issuers.emplace(tavrin::extractCommonName(facts->subject), tavrin::extractCommonName(facts->issuer));
    }
  }
  return issuers;
}

CertificateStatus statusOf(const StoredCertificate& certificate, const CaFolder& caFolder,
                           const CaFolder::Issuers& onToken) {
  CertificateStatus status;
  status.label = certificate.label;
  status.id = certificate.id;
  status.facts = readFacts(certificate.der);
  if (!status.facts) return status;
  const std::string& issuer = status.facts->issuer;
  if (status.facts->subject == issuer) {
    status.chain = Chain::selfSigned;
  } else if (status.missingIssuer = caFolder.missingIssuer(issuer, {}); status.missingIssuer.empty()) {
    status.chain = Chain::complete;
  } else if (caFolder.missingIssuer(issuer, onToken).empty()) {
    status.chain = Chain::onToken;
    status.missingIssuer.clear();
  }
  return status;
}

bool belongTogether(const PublicKey& key, const CertificateStatus& status) {
  if (status.facts && holdsKey(*status.facts, key.value)) return true;
  return !key.id.empty() && key.id == status.id;
}

TokenStatus statusOf(const ProbedToken& token, const CaFolder& caFolder) {
  TokenStatus status{&token, {}, {}};
  const CaFolder::Issuers onToken = issuersOn(token);
  for (const StoredCertificate& certificate : token.certificates)
    status.certificates.push_back(statusOf(certificate, caFolder, onToken));
  for (const PublicKey& key : token.keys) {
    KeyStatus& keyStatus = status.keys.emplace_back(KeyStatus{&key, {}});
    for (std::size_t i = 0; i < status.certificates.size(); ++i) {
      if (!belongTogether(key, status.certificates[i])) continue;
      status.certificates[i].hasKey = true;
      keyStatus.certificates.push_back(i);
    }
  }
  return status;
}

}  // namespace

void gatherStatus(const std::filesystem::path& module, bool anonymous, SystemStatus& status) {
  status.module = probeModule(module);
  const std::vector<std::string> surroundings = disturbances(std::filesystem::absolute(module));
  if (anonymous) anonymise(status.module);
  const CaFolder caFolder;
  for (const ProbedToken& token : status.module.tokens) status.tokens.push_back(statusOf(token, caFolder));
  if (anonymous) anonymise(status.tokens);
  status.caFolder = caFolder.path();
  status.caFolderShared = caFolder.isShared();
  status.caCertificates = caFolder.certificateCount();
  status.logLevel = tavrin::getLogLevel();
  status.logFolder = softtoken::textOf(logFolder());
  status.logFiles = logFilesOf(today());
  if (anonymous) {
    status.caFolder = fileNameIn(status.caFolder);
    status.logFolder = fileNameIn(status.logFolder);
  }
  judge(status);
  if (anonymous && !surroundings.empty())
    status.warnings.push_back("other settings of this machine disturb the module; see tavrin-tool status");
  if (anonymous) return;
  judgeLog(status);
  status.warnings.insert(status.warnings.end(), surroundings.begin(), surroundings.end());
}

}  // namespace tool
