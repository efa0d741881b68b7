// Reads PKCS#12 files, and decrypts with the password-based algorithms that they share with PEM files.
#pragma once

#include "tool/key_file.h"

namespace tool {

// Decrypts with the algorithm of an AlgorithmIdentifier: PBES2 with AES or 3DES, or a PKCS#12 algorithm with 3DES or
// 40-bit RC2. Throws Failure for other algorithms and when the padding is wrong, which most wrong passwords cause.
softtoken::SecretBytes decryptByPassword(softtoken::ByteView algorithm, softtoken::ByteView ciphertext,
                                         const softtoken::SecretBytes& password);

// Throws Failure when the file is no PKCS#12 file in DER, or when its MAC shows that the password is wrong.
KeyFile readPkcs12(softtoken::ByteView file, const softtoken::SecretBytes& password);

}  // namespace tool
