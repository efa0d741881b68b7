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

// Reads a file of either kind. Throws Failure with the reason when the file is of neither kind, the password is wrong,
// or the key or the encryption is unknown.
KeyFile readKeyFile(const std::string& file, const AskPassword& askPassword);

// Read a PKCS#8 PrivateKeyInfo and an EncryptedPrivateKeyInfo. The readers of both kinds of files use them.
PrivateKey privateKeyIn(softtoken::ByteView info);
PrivateKey encryptedPrivateKeyIn(softtoken::ByteView info, const softtoken::SecretBytes& password);

// Returns whether the certificate is for this key. False for keys on curves: the file need not hold their public point.
bool fits(const PrivateKey& key, softtoken::ByteView certificate);

}  // namespace tool
