#include "tool/status.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "log/log.h"
#include "objects/ca_installation.h"
#include "softtoken/platform.h"
#include "tool/ca_folder.h"
#include "tool/status_report.h"

namespace tool {
namespace {

CertificateStatus statusOf(const StoredCertificate& certificate, const CaFolder& caFolder) {
  CertificateStatus status;
  status.label = certificate.label;
  status.facts = readFacts(certificate.der);
  if (!status.facts) return status;
  if (status.facts->subject == status.facts->issuer) {
    status.chain = Chain::selfSigned;
    return status;
  }
  status.missingIssuer = caFolder.missingIssuer(status.facts->issuer);
  status.chain = status.missingIssuer.empty() ? Chain::complete : Chain::incomplete;
  return status;
}

bool belongTogether(const PublicKey& key, const StoredCertificate& certificate, const CertificateStatus& status) {
  if (status.facts && holdsKey(*status.facts, key.value)) return true;
  return !key.id.empty() && key.id == certificate.id;
}

TokenStatus statusOf(const ProbedToken& token, const CaFolder& caFolder) {
  TokenStatus status{&token, {}, {}};
  for (const StoredCertificate& certificate : token.certificates)
    status.certificates.push_back(statusOf(certificate, caFolder));
  for (const PublicKey& key : token.keys) {
    KeyStatus& keyStatus = status.keys.emplace_back(KeyStatus{&key, {}});
    for (std::size_t i = 0; i < status.certificates.size(); ++i) {
      if (!belongTogether(key, token.certificates[i], status.certificates[i])) continue;
      status.certificates[i].hasKey = true;
      keyStatus.certificates.push_back(i);
    }
  }
  return status;
}

std::string dayCount(std::int64_t count) { return std::to_string(count) + (count == 1 ? " day" : " days"); }

void judgeValidity(const CertificateStatus& certificate, const std::string& name, SystemStatus& status) {
  const CertificateFacts& facts = *certificate.facts;
  if (facts.validity == Validity::expired) status.warnings.push_back(name + " expired on " + facts.notAfter);
  if (facts.validity == Validity::notYet) status.warnings.push_back(name + " is valid only from " + facts.notBefore);
  if (facts.validity == Validity::unknown) status.warnings.push_back(name + " does not tell how long it is valid");
  if (facts.validity == Validity::expiresSoon)
    status.warnings.push_back(name + " expires in " + dayCount(facts.daysLeft) + ", on " + facts.notAfter);
}

// The issuers' own certificates are not asked for their chains: the one below them tells already.
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
                              "\" is not in the CA folder");
  }
}

void judgeToken(const TokenStatus& token, SystemStatus& status) {
  const ProbedToken& probed = *token.token;
  const std::string name = "token \"" + probed.label + "\"";
  if (!probed.problem.empty()) status.problems.push_back(name + " cannot be used: " + probed.problem);
  if (probed.tries == TriesLeft::few) status.warnings.push_back(name + " has few password tries left");
  if (probed.tries == TriesLeft::none)
    status.warnings.push_back(name + " is locked: the security officer can unlock its password");
  for (const CertificateStatus& certificate : token.certificates) judgeCertificate(certificate, name, status);
}

void judge(SystemStatus& status) {
  if (!status.module.problem.empty()) {
    status.problems.push_back("the module cannot be used: " + status.module.problem);
  } else if (status.tokens.empty()) {
    status.problems.push_back("no token is connected");
  }
  for (const TokenStatus& token : status.tokens) judgeToken(token, status);
}

void gather(const std::filesystem::path& moduleFile, SystemStatus& status) {
  status.module = probeModule(moduleFile);
  const CaFolder caFolder;
  for (const ProbedToken& token : status.module.tokens) status.tokens.push_back(statusOf(token, caFolder));
  status.caFolder = caFolder.path();
  status.caCertificates = caFolder.certificateCount();
  status.logLevel = tavrin::getLogLevel();
  status.logFolder = softtoken::textOf(logFolder());
  status.logFiles = logFilesOf(today());
  judge(status);
}

}  // namespace

void addStatusCommand(CLI::App& app, Action& action) {
  struct Options {
    std::string module;
    bool json = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App& command = *app.add_subcommand("status", "Shows what applications would find, and what is wrong.");
  command.add_option("--module", options->module, "The module to load; default: the installed one")->type_name("FILE");
  command.add_flag("--json", options->json, "Print JSON");
  command.footer("It needs no password and costs no password try.\n");
  command.callback([options, &action] {
    action = [options] {
      SystemStatus status;
      gather(options->module.empty() ? defaultModule() : softtoken::pathOf(options->module), status);
      std::cout << (options->json ? jsonReport(status) : textReport(status));
      return status.exitCode();
    };
  });
}

}  // namespace tool
