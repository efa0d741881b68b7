// The RSA paddings that libgcrypt does not decode or build apart from the key operation: signatures over inputs that
// are no digest, and ciphertexts of which nobody says how they were padded.
#pragma once

#include <optional>

#include "softtoken/bytes.h"

namespace softtoken {

// PKCS#1 block type 1 around the input as it is, `length` bytes. Nothing when the input is too long.
std::optional<Bytes> padForSignature(ByteView input, std::size_t length);

// The message in a decrypted block, whichever of OAEP (SHA-1, no label) and PKCS#1 v1.5 fits. Both are always tried, in
// a time that does not depend on the block's content.
std::optional<SecretBytes> removeEncryptionPadding(ByteView block);

}  // namespace softtoken
