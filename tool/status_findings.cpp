#include "tool/status_findings.h"

#include <algorithm>

#include "objects/ca_installation.h"
#include "softtoken/platform.h"
#include "tool/console.h"
#include "tool/own_log.h"
#include "tool/surroundings.h"
#include "tool/text.h"

namespace tool {
namespace {

std::string dayCount(std::int64_t count) { return std::to_string(count) + (count == 1 ? " day" : " days"); }

void judgeValidity(const CertificateStatus& certificate, const std::string& name, SystemStatus& status) {
  const CertificateFacts& facts = *certificate.facts;
  if (facts.validity == Validity::expired) status.warnings.push_back(name + " expired on " + facts.notAfter);
  if (facts.validity == Validity::notYet) status.warnings.push_back(name + " is valid only from " + facts.notBefore);
  if (facts.validity == Validity::unknown) status.warnings.push_back(name + " has no readable dates");
  if (facts.validity == Validity::expiresSoon)
    status.warnings.push_back(name + " expires in " + dayCount(facts.daysLeft) + ", on " + facts.notAfter);
}

// Only certificates with a key need a complete chain. Those of issuers are checked as a part of it.
void judgeCertificate(const CertificateStatus& certificate, const std::string& tokenName, SystemStatus& status) {
  if (!certificate.facts) {
    status.warnings.push_back("the certificate \"" + certificate.label + "\" on " + tokenName + " is unreadable");
    return;
  }
  const std::string name =
      "the certificate of \"" + tavrin::extractCommonName(certificate.facts->subject) + "\" on " + tokenName;
  judgeValidity(certificate, name, status);
  if (certificate.hasKey && certificate.chain == Chain::incomplete) {
    status.warnings.push_back(name + " has no complete chain: its issuer \"" + certificate.missingIssuer +
                              "\" is neither on the token nor in the CA folder");
  }
}

std::string shownId(const softtoken::Bytes& id) { return id.empty() ? "no ID" : "ID " + hexOf(id); }

// Applications find the certificate of a key by the ID, which must be the same in both.
void judgeIds(const TokenStatus& token, const std::string& tokenName, SystemStatus& status) {
  for (const KeyStatus& key : token.keys) {
    const auto sameId = [&](std::size_t i) { return token.certificates[i].id == key.key->id; };
    if (key.certificates.empty() || std::ranges::any_of(key.certificates, sameId)) continue;
    const CertificateStatus& certificate = token.certificates[key.certificates.front()];
    std::string text = "the key \"" + key.key->label + "\" on " + tokenName + " has " + shownId(key.key->id) +
                       " and its certificate has " + shownId(certificate.id) +
                       ", so applications cannot find the certificate for the key";
    if (!certificate.id.empty() && !key.key->id.empty()) {
      text += "; give the key the certificate's ID: pkcs11-tool --module " + status.module.module.path +
              " --login --type privkey --id " + hexOf(key.key->id) + " --set-id " + hexOf(certificate.id);
    }
    status.warnings.push_back(text);
  }
}

void judgeToken(const TokenStatus& token, SystemStatus& status) {
  const ProbedToken& probed = *token.token;
  const std::string name = "token \"" + probed.label + "\"";
  if (!probed.problem.empty()) status.problems.push_back(name + " cannot be used: " + probed.problem);
  if (probed.tries == TriesLeft::few) status.warnings.push_back(name + " has few password tries left");
  if (probed.tries == TriesLeft::none) {
    status.warnings.push_back(name + " is locked: the security officer can unlock its password" +
                              (probed.name.empty() ? "" : " with: tavrin-tool token unlock " + probed.name));
  }
  for (const CertificateStatus& certificate : token.certificates) judgeCertificate(certificate, name, status);
  judgeIds(token, name, status);
}

void judgeSetAside(SystemStatus& status) {
  for (const SetAsideToken& token : status.module.setAside) {
    if (token.state == "unreadable") {
      status.warnings.push_back("the software token " + token.name + " in " + status.module.softTokenFolder +
                                " cannot be read: " + token.problem);
    } else if (token.state == "full") {
      status.warnings.push_back("the software token " + token.name + " is full: no key or certificate fits any more");
    }
  }
}

std::string noToken(const SystemStatus& status) {
  std::string text = "no token is connected";
  for (const SetAsideToken& token : status.module.setAside) {
    if (token.state == "unplugged") {
      text += "; the software token " + token.name + " is unplugged: tavrin-tool token plug " + token.name;
    }
  }
  return text;
}

}  // namespace

void judge(SystemStatus& status) {
  if (!status.module.problem.empty()) {
    status.problems.push_back("the module cannot be used: " + status.module.problem);
  } else if (status.tokens.empty()) {
    status.problems.push_back(noToken(status));
  }
  if (!status.module.warning.empty()) status.warnings.push_back(status.module.warning);
  for (const TokenStatus& token : status.tokens) judgeToken(token, status);
  judgeSetAside(status);
  if (!status.caFolderShared) {
    status.warnings.push_back(
        "TAVRIN_HOME is not set, so each program looks for CA certificates below its own folder; set it for all "
        "programs to the folder that holds TavrinDSC/Certificates");
  }
}

void judgeLog(SystemStatus& status) {
  const std::filesystem::path folder = logFolder();
  const std::string temporary = environmentText("TMPDIR");
  if (!canLog()) {
    const std::string owner = ownerOf(folder);
    status.warnings.push_back("the log cannot be written to " + status.logFolder +
                              (owner.empty() ? "" : ", which belongs to " + owner) +
                              "; remove it or have its owner do so");
  }
  const std::filesystem::path foreign = std::filesystem::path(temporary) / folder.filename();
  if (!temporary.empty() && !ownerOf(foreign).empty() && foreign.lexically_normal() != folder) {
    status.warnings.push_back("the log is in " + status.logFolder + ", as " + softtoken::textOf(foreign) +
                              " belongs to " + ownerOf(foreign));
  }
}

}  // namespace tool
