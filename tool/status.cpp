#include "tool/status.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <thread>

#include "log/log.h"
#include "objects/ca_installation.h"
#include "softtoken/failure.h"
#include "softtoken/platform.h"
#include "tool/ca_folder.h"
#include "tool/command_line.h"
#include "tool/console.h"
#include "tool/own_log.h"
#include "tool/status_report.h"
#include "tool/surroundings.h"
#include "tool/text.h"

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

// Replaces names by numbered words; the same name always gets the same word.
class Aliases {
 public:
  explicit Aliases(const char* kind) : kind_(kind) {}
  std::string of(const std::string& name) {
    if (name.empty()) return {};
    const auto [entry, added] = known_.emplace(name, kind_ + std::to_string(known_.size() + 1));
    return entry->second;
  }

 private:
  std::string kind_;
  std::map<std::string, std::string> known_;
};

std::string fileNameIn(const std::string& path) { return softtoken::textOf(softtoken::pathOf(path).filename()); }

// Called before the findings are made, so that no finding contains a name. IDs are replaced because many are digests of
// keys.
void anonymise(ProbedModule& module) {
  Aliases labels("label ");
  std::map<std::string, std::uint8_t> ids{{"", std::uint8_t{0}}};
  const auto replaceId = [&](softtoken::Bytes& id) {
    const auto number = ids.emplace(hexOf(id), static_cast<std::uint8_t>(ids.size())).first->second;
    if (!id.empty()) id = {number};
  };
  for (std::string* path : {&module.module.path, &module.deviceLibrary.path, &module.softTokenFolder})
    *path = fileNameIn(*path);
  for (ProbedToken& token : module.tokens) {
    for (std::string* name : {&token.label, &token.serial, &token.name}) *name = labels.of(*name);
    for (PublicKey& key : token.keys) {
      key.label = labels.of(key.label);
      replaceId(key.id);
    }
    for (StoredCertificate& certificate : token.certificates) {
      certificate.label = labels.of(certificate.label);
      replaceId(certificate.id);
    }
  }
  for (SetAsideToken& token : module.setAside) token = {labels.of(token.name), token.state, "hidden"};
  if (!module.problem.empty()) module.problem = "the reason is hidden; see tavrin-tool status";
}

void anonymise(TokenStatus& token, Aliases& names) {
  const auto alias = [&](const std::string& name) {
    return name.empty() ? name : "CN=" + names.of(tavrin::extractCommonName(name));
  };
  for (CertificateStatus& certificate : token.certificates) {
    if (!certificate.missingIssuer.empty()) certificate.missingIssuer = names.of(certificate.missingIssuer);
    if (!certificate.facts) continue;
    certificate.facts->subject = alias(certificate.facts->subject);
    certificate.facts->issuer = alias(certificate.facts->issuer);
  }
}

}  // namespace

void gatherStatus(const std::filesystem::path& module, bool anonymous, SystemStatus& status) {
  status.module = probeModule(module);
  const std::vector<std::string> surroundings = disturbances(std::filesystem::absolute(module));
  if (anonymous) anonymise(status.module);
  const CaFolder caFolder;
  Aliases names("name ");
  for (const ProbedToken& token : status.module.tokens) {
    status.tokens.push_back(statusOf(token, caFolder));
    if (anonymous) anonymise(status.tokens.back(), names);
  }
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

namespace {

struct StatusOptions {
  std::string module;
  bool json = false;
  bool watch = false;
};

std::filesystem::path moduleOf(const StatusOptions& options) {
  return options.module.empty() ? defaultModule() : softtoken::pathOf(options.module);
}

int show(const StatusOptions& options) {
  SystemStatus status;
  gatherStatus(moduleOf(options), false, status);
  std::cout << (options.json ? jsonReport(status) : textReport(status));
  return status.exitCode();
}

// Shows the status again after each change, until the output fails or the process is ended.
int watch(const StatusOptions& options) {
  if (!outputIsTerminal()) throw softtoken::Failure(softtoken::Status::badArgument, "--watch needs a terminal");
  outputTakesColour();  // makes Windows' console understand the sequence below
  constexpr auto interval = std::chrono::seconds(1);
  for (std::string shown; std::cout.flush(); std::this_thread::sleep_for(interval)) {
    SystemStatus status;
    gatherStatus(moduleOf(options), false, status);
    const std::string text = textReport(status);
    if (text != shown) std::cout << "\x1B[H\x1B[2J" << text;
    shown = text;
  }
  return 0;
}

}  // namespace

void addStatusCommand(const Command& program) {
  const auto options = std::make_shared<StatusOptions>();
  const Command command = program.add("status", "Shows what applications would find, and what is wrong.");
  command.option("--module FILE", options->module, "The module to load; default: the installed one");
  command.flag("--json", options->json, "Print JSON");
  command.flag("--watch", options->watch, "Show it again when tokens come and go");
  command.exclude("--watch", "--json");
  command.footer("It needs no password and costs no password try.\n");
  command.run([options] { return options->watch ? watch(*options) : show(*options); });
}

}  // namespace tool
