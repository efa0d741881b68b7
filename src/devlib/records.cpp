#include "devlib/records.h"

#include <algorithm>
#include <limits>

namespace {

template <std::size_t size>
Bytes clamped(const std::uint8_t (&field)[size], std::uint32_t length) {
  return {field, std::min<std::size_t>(length, size)};
}

template <std::size_t size>
std::string_view clampedText(const char (&field)[size]) {
  return {field, static_cast<std::size_t>(std::find(field, field + size, '\0') - field)};
}

}  // namespace

Bytes publicKey(const TavrinKeyPair& keyPair) { return clamped(keyPair.publicKey, keyPair.publicKeyLength); }
Bytes keyId(const TavrinKeyPair& keyPair) { return clamped(keyPair.keyId, keyPair.keyIdLength); }
std::string_view label(const TavrinKeyPair& keyPair) { return clampedText(keyPair.label); }
bool deviceFlag(const TavrinKeyPair& keyPair) { return (keyPair.deviceFlag & 0xFF) != 0; }

Bytes certificate(const TavrinCertificate& record) { return clamped(record.certificate, record.certificateLength); }
Bytes certId(const TavrinCertificate& record) { return clamped(record.certId, record.certIdLength); }
std::string_view label(const TavrinCertificate& record) { return clampedText(record.label); }

std::size_t returnedLength(int length, std::size_t size) {
  return length < 0 ? 0 : std::min(static_cast<std::size_t>(length), size);
}

int deviceLength(CK_ULONG length) {
  if (length > std::numeric_limits<std::uint32_t>::max()) return -1;
  return static_cast<int>(static_cast<std::uint32_t>(length));
}

std::uint32_t copyToField(std::span<std::uint8_t> field, Bytes bytes) {
  const Bytes fitting = bytes.first(std::min(bytes.size(), field.size()));
  std::copy(fitting.begin(), fitting.end(), field.begin());
  return static_cast<std::uint32_t>(fitting.size());
}

bool sameBytes(Bytes left, Bytes right) { return std::equal(left.begin(), left.end(), right.begin(), right.end()); }
