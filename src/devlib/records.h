// Bounds-checked access to the device library's records. A length in a record is limited to the size of its field, a
// text ends with its field at the latest, and a returned length is limited to the size of its buffer. The views point
// into the record. Any thread may call the functions; none throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "devlib/byte_view.h"
#include "devlib/device_library.h"
#include "pkcs11.h"

namespace tavrin {

ByteView publicKey(const TavrinKeyPair& keyPair);
ByteView keyId(const TavrinKeyPair& keyPair);
std::string_view label(const TavrinKeyPair& keyPair);
// The flag that is passed to the library when the key decrypts or is deleted.
bool deviceFlag(const TavrinKeyPair& keyPair);

ByteView certificate(const TavrinCertificate& record);
ByteView certId(const TavrinCertificate& record);
std::string_view label(const TavrinCertificate& record);

// A length that the library returned for a buffer of the module's: 0 when it is negative, at most `size`, the buffer's
// size in bytes.
std::size_t returnedLength(int length, std::size_t size);

// Whether a length that the library returned for a buffer of its own is more than the module accepts.
bool isTooLong(int length);

// A length in bytes as the library takes it: its lower 32 bits as a signed number. A length of more than 32 bits
// becomes -1, which every library refuses, and not a shorter length that it would accept.
int deviceLength(std::size_t length);

// Copies as many bytes as the field holds and returns how many that were.
std::uint32_t copyToField(std::span<std::uint8_t> field, ByteView bytes);

bool sameBytes(ByteView left, ByteView right);

}  // namespace tavrin
