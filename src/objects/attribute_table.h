// The attributes of certificates and of the two halves of a key pair.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "devlib/records.h"
#include "pkcs11.h"

namespace tavrin {

// One object as its attributes are read: one of the two records, and the handle by which the caller named it.
struct ObjectView {
  CK_OBJECT_HANDLE handle;
  const TavrinKeyPair* keyPair = nullptr;
  const TavrinCertificate* certificate = nullptr;
};

// An attribute's value: a view into the record or a constant, or bytes of its own. It cannot be copied or moved, since
// the view may point into the object itself.
class AttributeValue {
 public:
  AttributeValue() = default;
  AttributeValue(const AttributeValue&) = delete;
  AttributeValue& operator=(const AttributeValue&) = delete;

  ByteView bytes() const { return bytes_; }

  void view(ByteView bytes) { bytes_ = bytes; }
  void setBoolean(bool value);
  void setNumber(CK_ULONG value);
  void setMade(std::vector<std::uint8_t> bytes);

 private:
  ByteView bytes_;
  std::array<std::uint8_t, sizeof(CK_ULONG)> small_{};
  std::vector<std::uint8_t> made_;
};

// Fills in the value of an attribute of the object; it stays empty when the object has no such attribute.
void readAttribute(CK_ATTRIBUTE_TYPE type, const ObjectView& object, AttributeValue& value);

}  // namespace tavrin
