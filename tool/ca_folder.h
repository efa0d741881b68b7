// The installation's folder of CA certificates, read by the module's rules for the chains that it imports.
#pragma once

#include <map>
#include <string>

namespace tool {

class CaFolder {
 public:
  // Below $TAVRIN_HOME, else below the first of the usual install folders that exists, else beside this program: the
  // module looks beside the application in that case.
  CaFolder();

  const std::string& path() const { return path_; }
  std::size_t certificateCount() const { return issuers_.size(); }

  // Whether every program looks in this folder: TAVRIN_HOME names it, or it belongs to the installation. Otherwise each
  // program looks below its own folder.
  bool isShared() const { return shared_; }

  // Common names of certificates' issuers, by the common names of their subjects.
  using Issuers = std::map<std::string, std::string>;

  // Follows a certificate's issuer up to a self-signed root, through the folder's files and further certificates.
  // Returns the common name at which they end or run in a circle; empty when the chain is complete.
  std::string missingIssuer(const std::string& issuerName, const Issuers& further) const;

 private:
  bool shared_;
  std::string path_;
  Issuers issuers_;
};

}  // namespace tool
