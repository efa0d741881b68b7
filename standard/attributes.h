// The attributes of one object, and reading of the templates that applications pass.
#pragma once

#include <initializer_list>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "devlib/device_constants.h"
#include "platform/secret_memory.h"
#include "standard/cryptoki.h"

namespace tavrin::standard {

// Memory is wiped when it is released. Not synchronised.
class Attributes {
 public:
  // Null when there is no such attribute. Finds sensitive values too: isSensitive says which must not be returned.
  const SecretBytes* find(CK_ATTRIBUTE_TYPE type) const;

  void set(CK_ATTRIBUTE_TYPE type, ByteView value);
  void setFlag(CK_ATTRIBUTE_TYPE type, bool value);
  void setNumber(CK_ATTRIBUTE_TYPE type, CK_ULONG value);

  // False, or CK_UNAVAILABLE_INFORMATION, when the attribute is missing or its value has another length.
  bool flag(CK_ATTRIBUTE_TYPE type) const;
  CK_ULONG number(CK_ATTRIBUTE_TYPE type) const;

  // Whether the object has this attribute with exactly this value.
  bool match(const CK_ATTRIBUTE& wanted) const;

  const std::vector<std::pair<CK_ATTRIBUTE_TYPE, SecretBytes>>& all() const { return entries_; }

  // The attributes as a template, which points into this object.
  std::vector<CK_ATTRIBUTE> asTemplate();

 private:
  std::vector<std::pair<CK_ATTRIBUTE_TYPE, SecretBytes>> entries_;
};

// The kinds of objects that templates describe. newPublicKey and newPrivateKey are for the generation of a pair.
enum Kind : unsigned {
  certificate = 1,
  publicKey = 2,
  privateKey = 4,
  newPublicKey = 8,
  newPrivateKey = 16,
  secretKey = 32,
  dataObject = 64,
};

// A template whose pointers have been checked: every entry has a value, or none and the length 0.
class Template {
 public:
  // Throws CKR_ARGUMENTS_BAD for a missing template, CKR_ATTRIBUTE_VALUE_INVALID for a missing value, and
  // CKR_TEMPLATE_INCONSISTENT for an attribute that is given twice with different values.
  Template(const CK_ATTRIBUTE* entries, CK_ULONG count);

  std::span<const CK_ATTRIBUTE> entries() const { return entries_; }
  const CK_ATTRIBUTE* find(CK_ATTRIBUTE_TYPE type) const;

  // Nothing when the attribute is not given. A flag or number of another length is CKR_ATTRIBUTE_VALUE_INVALID.
  std::optional<ByteView> bytes(CK_ATTRIBUTE_TYPE type) const;
  std::optional<bool> flag(CK_ATTRIBUTE_TYPE type) const;
  std::optional<CK_ULONG> number(CK_ATTRIBUTE_TYPE type) const;

  // Throw CKR_TEMPLATE_INCOMPLETE when the attribute is missing, and CKR_ATTRIBUTE_VALUE_INVALID when it is empty.
  ByteView required(CK_ATTRIBUTE_TYPE type) const;
  CK_ULONG requiredNumber(CK_ATTRIBUTE_TYPE type) const;

  // Refuses with CKR_TEMPLATE_INCONSISTENT a flag or number that is given and has another value.
  void mustNotContradict(CK_ATTRIBUTE_TYPE type, bool value) const;
  void mustNotContradict(CK_ATTRIBUTE_TYPE type, CK_ULONG value) const;

  // Refuses with CKR_ATTRIBUTE_TYPE_INVALID what an object of this kind cannot have, and with CKR_ATTRIBUTE_READ_ONLY
  // what only the token sets, such as a key's origin.
  void mustBeOf(Kind kind) const;

 private:
  std::span<const CK_ATTRIBUTE> entries_;
};

ByteView valueOf(const CK_ATTRIBUTE& attribute);

// The attributes of the template, and defaults for all others of its kind: no uses, not trusted, not on the token.
Attributes withDefaults(const Template& given, Kind kind);

// The label and ID that the token can keep: CKR_ATTRIBUTE_VALUE_INVALID for a longer one or a label with a NUL.
void checkLabelAndId(const Template& wanted);

// Refuses with CKR_ATTRIBUTE_VALUE_INVALID an RSA key that the token cannot have, by its public exponent or its size.
void checkRsaKey(const Template& publicParts, CK_ULONG bits);

// The bits of a number without its leading zeros.
CK_ULONG bitsOf(ByteView number);

}  // namespace tavrin::standard
