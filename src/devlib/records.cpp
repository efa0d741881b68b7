#include "devlib/records.h"

#include <algorithm>
#include <limits>

#include "devlib/device_constants.h"

namespace tavrin {
namespace {

template <std::size_t size>
ByteView clamped(const std::uint8_t (&field)[size], std::uint32_t length) {
  return {field, std::min<std::size_t>(length, size)};
}

template <std::size_t size>
std::string_view clampedText(const char (&field)[size]) {
  return {field, static_cast<std::size_t>(std::find(field, field + size, '\0') - field)};
}

}  // namespace

ByteView publicKey(const TavrinKeyPair& keyPair) { return clamped(keyPair.publicKey, keyPair.publicKeyLength); }
ByteView keyId(const TavrinKeyPair& keyPair) { return clamped(keyPair.keyId, keyPair.keyIdLength); }
std::string_view label(const TavrinKeyPair& keyPair) { return clampedText(keyPair.label); }
bool deviceFlag(const TavrinKeyPair& keyPair) { return (keyPair.deviceFlag & 0xFF) != 0; }

ByteView certificate(const TavrinCertificate& record) { return clamped(record.certificate, record.certificateLength); }
ByteView certId(const TavrinCertificate& record) { return clamped(record.certId, record.certIdLength); }
std::string_view label(const TavrinCertificate& record) { return clampedText(record.label); }

std::size_t returnedLength(int length, std::size_t size) {
  return length < 0 ? 0 : std::min(static_cast<std::size_t>(length), size);
}

bool isTooLong(int length) { return length > static_cast<int>(maximumResultLength); }

int deviceLength(std::size_t length) {
  if (length > std::numeric_limits<std::uint32_t>::max()) return -1;
  return static_cast<int>(static_cast<std::uint32_t>(length));
}

std::uint32_t copyToField(std::span<std::uint8_t> field, ByteView bytes) {
  const ByteView fitting = bytes.first(std::min(bytes.size(), field.size()));
  std::copy(fitting.begin(), fitting.end(), field.begin());
  return static_cast<std::uint32_t>(fitting.size());
}

bool sameBytes(ByteView left, ByteView right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

}  // namespace tavrin
