// Turning what Cryptoki hands out into what other programs read: public keys as PEM, ECDSA signatures as DER.
#pragma once

#include <string>
#include <vector>

#include "pkcs11.h"

using Bytes = std::vector<CK_BYTE>;

// PEM texts ("BEGIN PUBLIC KEY") of an RSA key, from CKA_MODULUS and CKA_PUBLIC_EXPONENT (big-endian), and of an EC
// key, from CKA_EC_PARAMS (a DER object identifier) and CKA_EC_POINT (a DER octet string).
std::string rsaPublicKeyPem(const Bytes& modulus, const Bytes& exponent);
std::string ecPublicKeyPem(const Bytes& parameters, const Bytes& point);

// Cryptoki gives an ECDSA signature as r and s, one after the other and equally long; OpenSSL, X.509 and CMS want a
// DER sequence of two integers.
Bytes ecdsaSignatureAsDer(const Bytes& signature);

// The contents of a DER octet string such as CKA_EC_POINT: here the bare point. Throws std::runtime_error when the
// bytes are something else.
Bytes octetStringContents(const Bytes& der);
