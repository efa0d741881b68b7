// The CA certificate files of an installation: their folder, their extensions, and how a certificate names its issuer.
// tavrin-tool uses this too. Needs no device library. Any thread may call the functions.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/platform.h"

namespace tavrin {

// The folders in which TavrinDSC/Certificates may be when $TAVRIN_HOME is not set. The first that exists is used.
using platform::installFolders;

inline std::vector<std::string> caFileExtensions() { return {".cer", ".der", ".pem", ".crt"}; }

// The installation's folder of CA certificates: below $TAVRIN_HOME, else below the first of the install folders that
// exists, else below `programFolder`. It may not exist.
std::string caFolder(const std::string& programFolder);

// The common name in a name text: the first text after a "CN=", up to a comma or the end of the line, that is not
// empty. The whole text when there is none.
std::string extractCommonName(std::string_view name);

// The issuers of a certificate among the CA files, by common name.
struct IssuerChain {
  std::vector<std::string> issuers;  // the certificate's own issuer first
  std::string missing;               // the issuer that no file has or that is in the chain already; empty: complete
};

// Follows the issuers from the common name `issuer` up to a certificate that names itself. `issuerOf` holds the common
// name of each CA certificate with that of its issuer. A certificate without an issuer's name needs no issuers.
IssuerChain followIssuers(const std::map<std::string, std::string>& issuerOf, std::string issuer);

}  // namespace tavrin
