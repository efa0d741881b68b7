// Converts the formats of Cryptoki to those of other programs: public keys to PEM, ECDSA signatures to DER.
#pragma once

#include <string>
#include <vector>

#include "pkcs11.h"

using Bytes = std::vector<CK_BYTE>;

// Return PEM texts ("BEGIN PUBLIC KEY"): of an RSA key from CKA_MODULUS and CKA_PUBLIC_EXPONENT (big-endian), of an EC
// key from CKA_EC_PARAMS (a DER object identifier) and CKA_EC_POINT (a DER octet string).
std::string rsaPublicKeyPem(const Bytes& modulus, const Bytes& exponent);
std::string ecPublicKeyPem(const Bytes& parameters, const Bytes& point);

// Converts an ECDSA signature. Cryptoki's form is r and s, one after the other and equally long. OpenSSL, X.509 and CMS
// use a DER sequence of two integers.
Bytes ecdsaSignatureAsDer(const Bytes& signature);

// Returns the contents of a DER octet string; those of CKA_EC_POINT are the point. Throws std::runtime_error when the
// bytes are no DER octet string.
Bytes octetStringContents(const Bytes& der);
