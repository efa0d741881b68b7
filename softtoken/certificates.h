// X.509 certificates, parsed by libksba. No token is involved. Any thread may call the functions.
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

// The first certificate in a DER or PEM file with this content; empty when there is none.
std::optional<Bytes> certificateInFile(ByteView content);

// (file name, DER) of the certificates in a folder's files that have one of the extensions (with their dot, in any
// case) and at most 1 MiB, sorted by name. Other files, and files without a certificate, are skipped. Names are UTF-8.
std::vector<std::pair<std::string, Bytes>> certificatesInFolder(const std::string& folder,
                                                                const std::vector<std::string>& extensions);

}  // namespace softtoken
