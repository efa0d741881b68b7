// PKCS#12 files, and the password-based encryption that they share with PEM files.
#pragma once

#include "tool/key_file.h"

namespace tool {

// Decrypts with the algorithm that an AlgorithmIdentifier names: PBES2 with AES or 3DES, and PKCS#12's own with 3DES or
// 40-bit RC2. Throws Failure for other algorithms and for a wrong password, as far as the padding shows it.
softtoken::SecretBytes decryptByPassword(softtoken::ByteView algorithm, softtoken::ByteView ciphertext,
                                         const softtoken::SecretBytes& password);

// Throws Failure for what is no PKCS#12 file in DER, and for a wrong password, which its MAC shows.
KeyFile readPkcs12(softtoken::ByteView file, const softtoken::SecretBytes& password);

}  // namespace tool
