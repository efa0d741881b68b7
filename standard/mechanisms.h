// The mechanisms, as one table. They are those of the module, which describes them by the codes of the token instead.
#pragma once

#include <cstddef>
#include <span>

#include "devlib/device_constants.h"
#include "standard/cryptoki.h"

namespace tavrin::standard {

struct Token;

// A hash, and the values that name it in the parameters of other mechanisms.
struct HashMechanism {
  CK_MECHANISM_TYPE type;
  std::size_t length;  // bytes of a digest
  CK_RSA_PKCS_MGF_TYPE mgf;
  CK_EC_KDF_TYPE kdf;
};

struct Mechanism {
  CK_MECHANISM_TYPE type;
  KeySizes keySizes;
  CK_FLAGS flags;
  CK_KEY_TYPE keyType;
  const HashMechanism* hash;  // of a signature over hashed data; null otherwise
  CK_MECHANISM_TYPE raw;      // the mechanism that signs a digest
  bool isPss() const { return raw == CKM_RSA_PKCS_PSS; }
  bool needsNewFirmware() const { return isPss() || type == CKM_RSA_PKCS_OAEP; }
};

std::span<const Mechanism> allMechanisms();

// The mechanism, when this token has it for the use that the flags name; throws CKR_MECHANISM_INVALID otherwise.
const Mechanism& requiredMechanism(CK_MECHANISM_TYPE type, CK_FLAGS use, const Token& token);
bool isOnToken(const Mechanism& mechanism, const Token& token);

// The hash with this value of the member; null when there is none.
const HashMechanism* findHash(CK_ULONG value, CK_ULONG HashMechanism::*member = &HashMechanism::type);

}  // namespace tavrin::standard
