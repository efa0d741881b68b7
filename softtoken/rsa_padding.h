// RSA paddings that libgcrypt cannot handle: signatures over inputs that are no digest, and ciphertexts whose padding
// is unknown.
#pragma once

#include <optional>

#include "softtoken/bytes.h"

namespace softtoken {

// A PKCS#1 block of type 1 with the unchanged input, `length` bytes. Empty when the input is too long.
std::optional<Bytes> padForSignature(ByteView input, std::size_t length);

// The message in a decrypted block with either OAEP (SHA-1, no label) or PKCS#1 v1.5 padding; empty when neither is
// valid. Both are always tried, in a time that does not depend on the content of the block, except for the length of
// the message.
std::optional<SecretBytes> removeEncryptionPadding(ByteView block);

}  // namespace softtoken
