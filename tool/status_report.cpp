#include "tool/status_report.h"

#include "objects/ca_installation.h"
#include "tool/json.h"
#include "tool/log_level.h"
#include "tool/text.h"

namespace tool {
namespace {

constexpr std::size_t nameWidth = 16;
constexpr std::size_t lineWidth = 80;

class TextReport {
 public:
  // A line with a name, indented by the depth, and a value.
  void line(std::size_t depth, const std::string& name, const std::string& value) {
    std::string start = std::string(2 * depth, ' ') + name;
    start.resize(std::max(nameWidth, start.size() + 1), ' ');
    text_ += start + printable(value) + '\n';
  }
  void gap() { text_ += '\n'; }

  // A list item, wrapped at the line's width.
  void item(const std::string& words) {
    std::string current = "  -";
    const std::string shown = printable(words);
    for (std::size_t at = 0; at < shown.size();) {
      const std::size_t end = std::min(shown.find(' ', at), shown.size());
      if (current.size() + 1 + end - at > lineWidth) {
        text_ += current + '\n';
        current = "   ";
      }
      current += ' ' + shown.substr(at, end - at);
      at = end + 1;
    }
    text_ += current + '\n';
  }
  void plain(const std::string& words) { text_ += words + '\n'; }

  std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

std::string quoted(const std::string& text) { return '"' + text + '"'; }

const char* triesWord(TriesLeft tries) {
  constexpr const char* words[] = {"enough", "few", "none"};
  return words[static_cast<std::size_t>(tries)];
}

std::string triesText(const ProbedToken& token) {
  if (token.tries == TriesLeft::none) return "0, the password is locked";
  const char* hint = token.tries == TriesLeft::few ? "1 or 2" : "3 or more";
  return (token.exactTries ? std::to_string(*token.exactTries) : hint) +
         std::string(token.tries == TriesLeft::few ? ", few" : "");
}

std::string validityText(const CertificateFacts& facts) {
  std::string dates = facts.notBefore + " to " + facts.notAfter;
  switch (facts.validity) {
    case Validity::valid:
      return dates;
    case Validity::notYet:
      return dates + ", NOT YET VALID";
    case Validity::expiresSoon:
      return dates + ", EXPIRES SOON";
    case Validity::expired:
      return dates + ", EXPIRED";
    case Validity::unknown:
      break;
  }
  return "unknown";
}

std::string chainText(const CertificateStatus& certificate) {
  if (certificate.chain == Chain::selfSigned) return "self-signed";
  if (certificate.chain == Chain::complete) return "complete in the CA folder";
  if (certificate.chain == Chain::onToken) return "complete with issuers on the token";
  return "INCOMPLETE, no " + quoted(certificate.missingIssuer) + " in the CA folder";
}

void writeCertificate(TextReport& report, std::size_t depth, const CertificateStatus& certificate) {
  if (!certificate.facts) return report.line(depth, "certificate", quoted(certificate.label) + ", UNREADABLE");
  const CertificateFacts& facts = *certificate.facts;
  report.line(depth, "certificate",
              tavrin::extractCommonName(facts.subject) + ", issued by " + tavrin::extractCommonName(facts.issuer));
  report.line(depth + 1, "valid", validityText(facts));
  report.line(depth + 1, "chain", chainText(certificate));
}

void writeToken(TextReport& report, const TokenStatus& status) {
  const ProbedToken& token = *status.token;
  report.gap();
  report.line(0, "Token", token.label);
  if (!token.problem.empty()) return report.line(1, "unusable", token.problem);
  if (token.isSoftToken()) report.line(1, "kind", "software token" + (token.name.empty() ? "" : " " + token.name));
  report.line(1, "serial", token.serial);
  report.line(1, "firmware", token.firmware);
  report.line(1, "tries left", triesText(token));
  for (const KeyStatus& key : status.keys) {
    const std::string id = key.key->id.empty() ? "" : ", id " + hexOf(key.key->id);
    report.line(1, "key", key.key->type + (key.key->label.empty() ? "" : ", " + quoted(key.key->label)) + id);
    for (const std::size_t i : key.certificates) writeCertificate(report, 2, status.certificates[i]);
    if (key.certificates.empty()) report.line(2, "certificate", "none");
  }
  if (token.keys.empty()) report.line(1, "key", "none");
  for (const CertificateStatus& certificate : status.certificates)
    if (!certificate.hasKey) writeCertificate(report, 1, certificate);
}

void writeFile(TextReport& report, const char* name, const LoadedFile& file, const std::string& version) {
  report.line(0, name, file.path.empty() ? "not loaded" : file.path);
  if (!version.empty()) report.line(1, "version", version);
  if (!file.version.empty()) report.line(1, "file version", file.version);
}

void writeSetAside(TextReport& report, const ProbedModule& module) {
  if (module.softTokenFolder.empty()) return;
  report.line(0, "Soft tokens", module.softTokenFolder);
  for (const SetAsideToken& token : module.setAside) report.line(1, token.state, token.name);
}

void writeLog(TextReport& report, const SystemStatus& status) {
  report.line(0, "Log level", levelText(status.logLevel));
  report.line(0, "Log folder", status.logFolder);
  for (const LogFile& file : status.logFiles) {
    report.line(1, "today",
                softtoken::textOf(file.path.lexically_relative(file.path.parent_path().parent_path())) + ", " +
                    std::to_string(file.size) + " bytes");
  }
  if (status.logFiles.empty()) report.line(1, "today", "nothing yet");
}

void writeFindings(TextReport& report, const char* title, const std::vector<std::string>& findings) {
  if (findings.empty()) return;
  report.plain(title);
  for (const std::string& finding : findings) report.item(finding);
}

const char* validityWord(Validity validity) {
  constexpr const char* words[] = {"valid", "not yet valid", "expires soon", "expired", "unknown"};
  return words[static_cast<std::size_t>(validity)];
}

const char* chainWord(Chain chain) {
  constexpr const char* words[] = {"complete", "on token", "self-signed", "incomplete"};
  return words[static_cast<std::size_t>(chain)];
}

Json jsonOf(const LoadedFile& file) { return Json::Object{{"path", file.path}, {"fileVersion", file.version}}; }

Json jsonOf(const CertificateStatus& certificate) {
  const CertificateFacts facts = certificate.facts.value_or(CertificateFacts{});
  return Json::Object{{"label", certificate.label},
                      {"id", hexOf(certificate.id)},
                      {"readable", certificate.facts.has_value()},
                      {"subject", facts.subject},
                      {"issuer", facts.issuer},
                      {"notBefore", facts.notBefore},
                      {"notAfter", facts.notAfter},
                      {"daysLeft", facts.daysLeft},
                      {"validity", validityWord(facts.validity)},
                      {"chain", chainWord(certificate.chain)},
                      {"missingIssuer", certificate.missingIssuer}};
}

Json jsonOf(const TokenStatus& status, const KeyStatus& key) {
  Json::Array certificates;
  for (const std::size_t i : key.certificates) certificates.push_back(jsonOf(status.certificates[i]));
  return Json::Object{
      {"type", key.key->type}, {"label", key.key->label}, {"id", hexOf(key.key->id)}, {"certificates", certificates}};
}

Json jsonOf(const TokenStatus& status) {
  const ProbedToken& token = *status.token;
  Json::Array keys;
  for (const KeyStatus& key : status.keys) keys.push_back(jsonOf(status, key));
  Json::Array others;
  for (const CertificateStatus& certificate : status.certificates)
    if (!certificate.hasKey) others.push_back(jsonOf(certificate));
  return Json::Object{{"label", token.label},
                      {"serial", token.serial},
                      {"firmware", token.firmware},
                      {"softwareToken", token.isSoftToken()},
                      {"name", token.name},
                      {"triesLeft", triesWord(token.tries)},
                      {"triesLeftExactly", token.exactTries ? static_cast<int>(*token.exactTries) : -1},
                      {"problem", token.problem},
                      {"keys", keys},
                      {"otherCertificates", others}};
}

Json jsonOfLog(const SystemStatus& status) {
  Json::Array files;
  for (const LogFile& file : status.logFiles) {
    files.push_back(
        Json::Object{{"program", file.program}, {"path", softtoken::textOf(file.path)}, {"size", file.size}});
  }
  return Json::Object{{"level", status.logLevel}, {"folder", status.logFolder}, {"today", files}};
}

}  // namespace

std::string textReport(const SystemStatus& status) {
  TextReport report;
  const ProbedModule& module = status.module;
  const bool answered = !module.libraryVersion.empty();
  writeFile(report, "Module", module.module,
            answered ? module.libraryVersion + ", Cryptoki " + module.cryptokiVersion : "");
  writeFile(report, "Device library", module.deviceLibrary, "");
  for (const TokenStatus& token : status.tokens) writeToken(report, token);
  report.gap();
  writeSetAside(report, module);
  report.line(0, "CA folder", status.caFolder + (status.caFolderShared ? "" : " (of this program only)"));
  report.line(1, "certificates", std::to_string(status.caCertificates));
  writeLog(report, status);
  report.gap();
  writeFindings(report, "Problems", status.problems);
  writeFindings(report, "Warnings", status.warnings);
  if (status.exitCode() == 0) report.plain("All is well.");
  return report.take();
}

std::string jsonReport(const SystemStatus& status) {
  Json::Array tokens;
  for (const TokenStatus& token : status.tokens) tokens.push_back(jsonOf(token));
  Json::Array setAside;
  for (const SetAsideToken& token : status.module.setAside)
    setAside.push_back(Json::Object{{"name", token.name}, {"state", token.state}, {"problem", token.problem}});
  const Json report = Json::Object{{"module", jsonOf(status.module.module)},
                                   {"moduleVersion", status.module.libraryVersion},
                                   {"cryptokiVersion", status.module.cryptokiVersion},
                                   {"deviceLibrary", jsonOf(status.module.deviceLibrary)},
                                   {"tokens", tokens},
                                   {"softTokenFolder", status.module.softTokenFolder},
                                   {"otherSoftTokens", setAside},
                                   {"caFolder", Json::Object{{"path", status.caFolder},
                                                             {"shared", status.caFolderShared},
                                                             {"certificates", status.caCertificates}}},
                                   {"log", jsonOfLog(status)},
                                   {"problems", status.problems},
                                   {"warnings", status.warnings},
                                   {"exitCode", status.exitCode()}};
  return report.text() + '\n';
}

}  // namespace tool
