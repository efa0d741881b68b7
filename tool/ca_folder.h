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

  // Follows a certificate's issuer up to a self-signed root. Returns the common name at which the folder's files end or
  // run in a circle; empty when the chain is complete.
  std::string missingIssuer(const std::string& issuerName) const;

 private:
  std::string path_;
  std::map<std::string, std::string> issuers_;  // common names, by that of the subject
};

}  // namespace tool
