#include "tool/anonymise.h"

#include <map>

#include "objects/ca_installation.h"
#include "softtoken/platform.h"
#include "tool/text.h"

namespace tool {
namespace {

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

std::string fileNameIn(const std::string& path) { return softtoken::textOf(softtoken::pathOf(path).filename()); }

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

void anonymise(std::vector<TokenStatus>& tokens) {
  Aliases names("name ");
  for (TokenStatus& token : tokens) anonymise(token, names);
}

}  // namespace tool
