// The folder of CA certificates. Issuers are looked up by the rules that the module uses to import certificate chains.
#pragma once

#include <map>
#include <string>

namespace tool {

class CaFolder {
 public:
  // Reads the folder below $TAVRIN_HOME, else below the first usual install folder that exists, else below this
  // program's folder. In the last case the module reads another one: it looks below the application's folder.
  CaFolder();

  const std::string& path() const { return path_; }
  // The files that are certificates which fit on a token.
  std::size_t certificateCount() const { return certificateCount_; }

  // True when all programs use this folder, because TAVRIN_HOME names it or because it belongs to the installation.
  // False when each program looks below its own folder.
  bool isShared() const { return shared_; }

  // Common names of certificates' issuers, by the common names of their subjects.
  using Issuers = std::map<std::string, std::string>;

  // Follows a certificate's issuers up to a self-signed root, through the folder's files and further certificates.
  // Returns the common name of the issuer that is missing or that occurs twice; empty when the chain is complete.
  std::string missingIssuer(const std::string& issuerName, const Issuers& further) const;

 private:
  bool shared_;
  std::string path_;
  Issuers issuers_;
  std::size_t certificateCount_ = 0;
};

}  // namespace tool
