// The facts of a certificate that the status report shows.
#pragma once

#include <optional>
#include <string>

#include "softtoken/bytes.h"

namespace tool {

constexpr int warningDays = 30;  // before a certificate expires

enum class Validity { valid, notYet, expiresSoon, expired, unknown };

struct CertificateFacts {
  std::string subject;  // the whole name, such as CN=Example Root,O=Example,C=IN
  std::string issuer;
  std::string notBefore;  // YYYY-MM-DD in UTC; empty when the certificate has none
  std::string notAfter;
  std::int64_t daysLeft = 0;  // whole days until it expires, negative from a day after
  Validity validity = Validity::unknown;
  softtoken::Bytes publicKeyInfo;  // the DER SubjectPublicKeyInfo
};

// Judges the validity by the current time. Returns nothing unless `der` is exactly one certificate.
std::optional<CertificateFacts> readFacts(softtoken::ByteView der);

// Returns whether the certificate is for this public key, an RSA modulus or an EC point without DER around it.
bool holdsKey(const CertificateFacts& facts, softtoken::ByteView publicKey);

}  // namespace tool
