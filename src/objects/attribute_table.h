// The attributes that certificates and the two halves of a key pair carry.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "devlib/records.h"
#include "pkcs11.h"

// What the device's key type code means in Cryptoki's terms.
struct KeyTypeProfile {
  CK_KEY_TYPE keyType;
  CK_ULONG modulusBits;  // for EC keys too: the size of the curve
  CK_MECHANISM_TYPE keyGenMechanism;
  Bytes ecParams;  // the DER object identifier of the curve; empty for RSA
};

// Codes 1 to 4 are RSA 1024, 2048, 3072 and 4096, codes 5 to 7 P-256, P-384 and P-521; any other counts as RSA 2048.
const KeyTypeProfile& keyTypeProfile(std::uint32_t keyType);

// The device's code for a curve given as DER object identifier, or 0.
std::uint32_t curveKeyType(Bytes ecParams);

// One object as its attributes are read: one of the two records, and the handle by which the caller named it.
struct ObjectView {
  CK_OBJECT_HANDLE handle;
  const TavrinKeyPair* keyPair = nullptr;
  const TavrinCertificate* certificate = nullptr;
};

// An attribute's value: a view into the record or a constant where it lies there, else bytes made for it. Neither
// copied nor moved, since the view may point into the value itself.
class AttributeValue {
 public:
  AttributeValue() = default;
  AttributeValue(const AttributeValue&) = delete;
  AttributeValue& operator=(const AttributeValue&) = delete;

  Bytes bytes() const { return bytes_; }

  void view(Bytes bytes) { bytes_ = bytes; }
  void setBoolean(bool value);
  void setNumber(CK_ULONG value);
  void setMade(std::vector<std::uint8_t> bytes);

 private:
  Bytes bytes_;
  std::array<std::uint8_t, sizeof(CK_ULONG)> small_{};
  std::vector<std::uint8_t> made_;
};

// Fills in the value of an attribute of the object; it stays empty when the object has no such attribute.
void readAttribute(CK_ATTRIBUTE_TYPE type, const ObjectView& object, AttributeValue& value);
