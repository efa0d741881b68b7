// What tavrin-tool status and report show: whether applications can use the module, the tokens and their certificates,
// and if not, why.
#pragma once

#include <string>
#include <vector>

#include "tool/certificate_facts.h"
#include "tool/log_files.h"
#include "tool/module_probe.h"

namespace tool {

enum class Chain { complete, onToken, selfSigned, incomplete };  // onToken: complete, with issuers from the token

struct CertificateStatus {
  std::string label;
  softtoken::Bytes id;
  std::optional<CertificateFacts> facts;  // nothing: unreadable
  Chain chain = Chain::incomplete;
  std::string missingIssuer;  // of an incomplete chain
  bool hasKey = false;
};

struct KeyStatus {
  const PublicKey* key;
  std::vector<std::size_t> certificates;  // indexes into the token's certificates
};

struct TokenStatus {
  const ProbedToken* token;
  std::vector<KeyStatus> keys;
  std::vector<CertificateStatus> certificates;
};

// Everything that the report shows. Pointers point into `module`.
struct SystemStatus {
  ProbedModule module;
  std::vector<TokenStatus> tokens;
  std::string caFolder;
  bool caFolderShared = true;  // false: each program looks below its own folder
  std::size_t caCertificates = 0;
  int logLevel = 0;
  std::string logFolder;
  std::vector<LogFile> logFiles;  // today's
  std::vector<std::string> problems;
  std::vector<std::string> warnings;

  SystemStatus() = default;
  SystemStatus(const SystemStatus&) = delete;
  SystemStatus& operator=(const SystemStatus&) = delete;

  // 1 if there are problems, 3 if there are only warnings, else 0.
  int exitCode() const { return !problems.empty() ? 1 : !warnings.empty() ? 3 : 0; }
};

// Collects the status and adds the findings. With `anonymous`, numbers replace labels, names, serial numbers and IDs,
// and paths are shortened to file names.
void gatherStatus(const std::filesystem::path& module, bool anonymous, SystemStatus& status);

}  // namespace tool
