// X.509 certificates, parsed by libksba; no token takes part.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "softtoken/bytes.h"

namespace softtoken {

// Views point into the certificate that was parsed.
struct CertificateFields {
  std::string subjectText;  // CN=Example Root,O=Example,C=IN
  std::string issuerText;
  ByteView serial;  // these three are whole DER elements
  ByteView issuer;
  ByteView subject;
};

// Throws badArgument for anything but one whole certificate.
CertificateFields parseCertificate(ByteView der);

// The first certificate in the content of a file, whether DER or PEM; nothing when there is none.
std::optional<Bytes> certificateInFile(ByteView content);

// (file name, DER) of the certificates in a folder's files that have one of the extensions (with their dot, in any
// case) and at most 1 MiB, by name. Other files, and ones without a certificate, are passed over. Names are UTF-8.
std::vector<std::pair<std::string, Bytes>> certificatesInFolder(const std::string& folder,
                                                                const std::vector<std::string>& extensions);

}  // namespace softtoken
