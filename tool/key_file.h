// Files with a private key and its certificates: PEM and PKCS#12.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "softtoken/bytes.h"

namespace tool {

// An RSA key, or one on an elliptic curve. Numbers are big-endian.
struct PrivateKey {
  softtoken::Bytes modulus;  // empty for a key on a curve
  softtoken::Bytes publicExponent;
  softtoken::SecretBytes privateExponent;
  softtoken::SecretBytes prime1;
  softtoken::SecretBytes prime2;
  softtoken::SecretBytes exponent1;
  softtoken::SecretBytes exponent2;
  softtoken::SecretBytes coefficient;
  softtoken::Bytes curve;  // the object identifier in DER, with tag and length
  softtoken::SecretBytes scalar;

  bool isRsa() const { return !modulus.empty(); }
};

struct KeyFile {
  std::optional<PrivateKey> key;
  std::vector<softtoken::Bytes> certificates;  // DER, in the order of the file
};

// Called at most once, for a file that is encrypted. The password is UTF-8.
using AskPassword = std::function<softtoken::SecretBytes()>;

// Reads a file of either kind. Throws Failure, with the reason, when it is neither, when the password is wrong, and for
// keys and kinds of encryption that are not known.
KeyFile readKeyFile(const std::string& file, const AskPassword& askPassword);

// For readers of the kinds of files. A PKCS#8 PrivateKeyInfo, and an encrypted one.
PrivateKey privateKeyIn(softtoken::ByteView info);
PrivateKey encryptedPrivateKeyIn(softtoken::ByteView info, const softtoken::SecretBytes& password);

// Whether the certificate is for this key, as far as the file can show: an RSA key's modulus is compared.
bool fits(const PrivateKey& key, softtoken::ByteView certificate);

}  // namespace tool
