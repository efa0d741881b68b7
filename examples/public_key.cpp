#include "public_key.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr CK_BYTE integerTag = 0x02;
constexpr CK_BYTE bitStringTag = 0x03;
constexpr CK_BYTE octetStringTag = 0x04;
constexpr CK_BYTE sequenceTag = 0x30;

Bytes operator+(Bytes first, const Bytes& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// DER encodes a length below 128 in one byte. Before a longer length is a byte with the number of the length's bytes.
Bytes lengthBytes(std::size_t length) {
  const auto low = static_cast<CK_BYTE>(length & 0xFF);
  if (length < 0x80) return {low};
  if (length < 0x100) return {0x81, low};
  return {0x82, static_cast<CK_BYTE>(length >> 8 & 0xFF), low};
}

Bytes element(CK_BYTE tag, const Bytes& contents) { return Bytes{tag} + lengthBytes(contents.size()) + contents; }

// DER integers are signed and as short as possible.
Bytes unsignedInteger(const Bytes& number) {
  const auto first = std::find_if(number.begin(), number.end(), [](CK_BYTE byte) { return byte != 0; });
  Bytes contents(first, number.end());
  if (contents.empty() || contents.front() & 0x80) contents.insert(contents.begin(), 0);
  return element(integerTag, contents);
}

std::string base64(const Bytes& bytes) {
  static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
    unsigned long group = 0;
    for (std::size_t i = 0; i < 3; ++i) group = group << 8 | (i < count ? bytes[at + i] : 0U);
    for (std::size_t i = 0; i < 4; ++i) text += i <= count ? digits[group >> (18 - 6 * i) & 63] : '=';
    if (at % 48 == 45) text += '\n';
  }
  if (!text.empty() && text.back() != '\n') text += '\n';
  return text;
}

// A SubjectPublicKeyInfo: which algorithm, and the key as a bit string without unused bits.
std::string pem(const Bytes& algorithm, const Bytes& key) {
  const Bytes info = element(sequenceTag, element(sequenceTag, algorithm) + element(bitStringTag, Bytes{0} + key));
  return "-----BEGIN PUBLIC KEY-----\n" + base64(info) + "-----END PUBLIC KEY-----\n";
}

}  // namespace

std::string rsaPublicKeyPem(const Bytes& modulus, const Bytes& exponent) {
  const Bytes rsaEncryption = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
  return pem(rsaEncryption, element(sequenceTag, unsignedInteger(modulus) + unsignedInteger(exponent)));
}

std::string ecPublicKeyPem(const Bytes& parameters, const Bytes& point) {
  const Bytes ecPublicKey = {0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
  return pem(ecPublicKey + parameters, octetStringContents(point));
}

Bytes ecdsaSignatureAsDer(const Bytes& signature) {
  const auto middle = signature.begin() + static_cast<std::ptrdiff_t>(signature.size() / 2);
  return element(sequenceTag,
                 unsignedInteger(Bytes(signature.begin(), middle)) + unsignedInteger(Bytes(middle, signature.end())));
}

Bytes octetStringContents(const Bytes& der) {
  const std::size_t header = der.size() > 1 && der[1] == 0x81 ? 3 : 2;
  if (der.size() <= header || der[0] != octetStringTag || der[header - 1] != der.size() - header) {
    throw std::runtime_error("not a DER octet string");
  }
  return Bytes(der.begin() + static_cast<std::ptrdiff_t>(header), der.end());
}
