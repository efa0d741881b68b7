#include "standard/attributes.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>

#include "standard/refusal.h"

namespace tavrin::standard {
namespace {

// The form of an attribute, and its value when the template of a session object lacks it.
enum class Form {
  value,       // no attribute
  text,        // empty
  date,        // empty; otherwise eight digits
  number,      // 0
  use,         // a flag that is false, whatever the template says
  falseFlag,   // a flag
  trueFlag,    // a flag
  historical,  // a flag that is false, and only the token sets
};

struct Row {
  unsigned kinds;  // that have these attributes
  Form form;
  std::initializer_list<CK_ATTRIBUTE_TYPE> types;
};

constexpr unsigned allPublic = publicKey | newPublicKey;
constexpr unsigned allPrivate = privateKey | newPrivateKey;
constexpr unsigned allKeys = allPublic | allPrivate | secretKey;
constexpr unsigned all = allKeys | certificate | dataObject;

constexpr Row table[] = {
    {all, Form::value, {CKA_CLASS}},
    {all, Form::use, {CKA_TOKEN}},
    {all & ~secretKey, Form::falseFlag, {CKA_PRIVATE}},
    {secretKey, Form::trueFlag, {CKA_PRIVATE}},
    {all, Form::text, {CKA_LABEL}},
    {allKeys | certificate, Form::text, {CKA_ID}},
    {allKeys | certificate, Form::date, {CKA_START_DATE, CKA_END_DATE}},
    {all, Form::trueFlag, {CKA_MODIFIABLE, CKA_COPYABLE, CKA_DESTROYABLE}},
    {allPublic | allPrivate | certificate, Form::text, {CKA_SUBJECT, CKA_PUBLIC_KEY_INFO}},
    {allPublic | secretKey | certificate, Form::use, {CKA_TRUSTED}},
    {dataObject, Form::text, {CKA_APPLICATION, CKA_OBJECT_ID, CKA_VALUE}},
    {certificate, Form::value, {CKA_CERTIFICATE_TYPE, CKA_VALUE, CKA_CHECK_VALUE, CKA_NAME_HASH_ALGORITHM}},
    {certificate, Form::number, {CKA_CERTIFICATE_CATEGORY, CKA_JAVA_MIDP_SECURITY_DOMAIN}},
    {certificate, Form::text, {CKA_ISSUER, CKA_SERIAL_NUMBER, CKA_URL}},
    {certificate, Form::text, {CKA_HASH_OF_SUBJECT_PUBLIC_KEY, CKA_HASH_OF_ISSUER_PUBLIC_KEY}},
    {allKeys, Form::value, {CKA_KEY_TYPE}},
    {allKeys, Form::text, {CKA_ALLOWED_MECHANISMS}},
    {allKeys, Form::use, {CKA_DERIVE}},
    {allPublic | secretKey, Form::use, {CKA_WRAP, CKA_ENCRYPT, CKA_VERIFY}},
    {allPublic, Form::use, {CKA_VERIFY_RECOVER}},
    {allPublic, Form::value, {CKA_MODULUS_BITS, CKA_PUBLIC_EXPONENT, CKA_EC_PARAMS}},
    {publicKey, Form::value, {CKA_MODULUS, CKA_EC_POINT}},
    {allPrivate | secretKey, Form::falseFlag, {CKA_SENSITIVE}},
    {allPrivate | secretKey, Form::trueFlag, {CKA_EXTRACTABLE}},
    {allPrivate | secretKey, Form::use, {CKA_SIGN, CKA_DECRYPT, CKA_UNWRAP, CKA_WRAP_WITH_TRUSTED}},
    {allPrivate, Form::use, {CKA_SIGN_RECOVER, CKA_ALWAYS_AUTHENTICATE}},
    {privateKey, Form::value, {CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT, CKA_PRIME_1, CKA_PRIME_2}},
    {privateKey, Form::value, {CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT}},
    {secretKey, Form::value, {CKA_VALUE_LEN}},
    {allKeys, Form::historical, {CKA_LOCAL}},
    {allPrivate | secretKey, Form::historical, {CKA_ALWAYS_SENSITIVE, CKA_NEVER_EXTRACTABLE}},
};

template <typename Number>
Number numberIn(ByteView value) {
  Number number{};
  std::memcpy(&number, value.data(), sizeof number);
  return number;
}

// The row of the attribute among the kinds and, if given, of the form; null when there is none.
const Row* findRow(CK_ATTRIBUTE_TYPE type, unsigned kinds, std::optional<Form> form = std::nullopt) {
  for (const Row& row : table) {
    const bool isMeant = (row.kinds & kinds) != 0 && (!form || row.form == *form);
    if (isMeant && std::ranges::find(row.types, type) != row.types.end()) return &row;
  }
  return nullptr;
}

}  // namespace

ByteView valueOf(const CK_ATTRIBUTE& attribute) {
  if (!attribute.pValue) return {};
  return {static_cast<const std::uint8_t*>(attribute.pValue), static_cast<std::size_t>(attribute.ulValueLen)};
}

const SecretBytes* Attributes::find(CK_ATTRIBUTE_TYPE type) const {
  for (const auto& [known, value] : entries_)
    if (known == type) return &value;
  return nullptr;
}

void Attributes::set(CK_ATTRIBUTE_TYPE type, ByteView value) {
  SecretBytes bytes(value.begin(), value.end());
  for (auto& [known, old] : entries_) {
    if (known != type) continue;
    old.swap(bytes);
    return;
  }
  entries_.emplace_back(type, std::move(bytes));
}

void Attributes::setFlag(CK_ATTRIBUTE_TYPE type, bool value) {
  const std::uint8_t byte = value ? CK_TRUE : CK_FALSE;
  set(type, {&byte, 1});
}

void Attributes::setNumber(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
  std::uint8_t bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  set(type, bytes);
}

bool Attributes::flag(CK_ATTRIBUTE_TYPE type) const {
  const SecretBytes* value = find(type);
  return value && value->size() == 1 && value->front() != CK_FALSE;
}

CK_ULONG Attributes::number(CK_ATTRIBUTE_TYPE type) const {
  const SecretBytes* value = find(type);
  return value && value->size() == sizeof(CK_ULONG) ? numberIn<CK_ULONG>(*value) : CK_UNAVAILABLE_INFORMATION;
}

bool Attributes::match(const CK_ATTRIBUTE& wanted) const {
  const SecretBytes* value = find(wanted.type);
  return value && std::ranges::equal(*value, valueOf(wanted));
}

std::vector<CK_ATTRIBUTE> Attributes::asTemplate() {
  std::vector<CK_ATTRIBUTE> result;
  for (auto& [type, value] : entries_) result.push_back({type, value.data(), static_cast<CK_ULONG>(value.size())});
  return result;
}

Template::Template(const CK_ATTRIBUTE* entries, CK_ULONG count) {
  if (!entries && count != 0) throw Refusal(CKR_ARGUMENTS_BAD, "the template is NULL with ulCount=", count);
  entries_ = {entries, static_cast<std::size_t>(count)};
  for (const CK_ATTRIBUTE& entry : entries_) {
    const CK_ATTRIBUTE_TYPE type = entry.type;
    if (!entry.pValue && entry.ulValueLen != 0) {
      throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "pValue is NULL for attribute type=", type);
    }
    if (!std::ranges::equal(valueOf(*find(type)), valueOf(entry))) {
      throw Refusal(CKR_TEMPLATE_INCONSISTENT, "two values for attribute type=", type);
    }
  }
}

const CK_ATTRIBUTE* Template::find(CK_ATTRIBUTE_TYPE type) const {
  for (const CK_ATTRIBUTE& entry : entries_)
    if (entry.type == type) return &entry;
  return nullptr;
}

std::optional<ByteView> Template::bytes(CK_ATTRIBUTE_TYPE type) const {
  const CK_ATTRIBUTE* entry = find(type);
  return entry ? std::optional(valueOf(*entry)) : std::nullopt;
}

std::optional<bool> Template::flag(CK_ATTRIBUTE_TYPE type) const {
  const auto value = bytes(type);
  if (!value) return std::nullopt;
  if (value->size() != sizeof(CK_BBOOL) || value->front() > CK_TRUE) {
    throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "no truth value for attribute type=", type);
  }
  return value->front() != CK_FALSE;
}

std::optional<CK_ULONG> Template::number(CK_ATTRIBUTE_TYPE type) const {
  const auto value = bytes(type);
  if (!value) return std::nullopt;
  if (value->size() != sizeof(CK_ULONG)) {
    throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "no number for attribute type=", type);
  }
  return numberIn<CK_ULONG>(*value);
}

ByteView Template::required(CK_ATTRIBUTE_TYPE type) const {
  const auto value = bytes(type);
  if (!value) throw Refusal(CKR_TEMPLATE_INCOMPLETE, "the template lacks attribute type=", type);
  if (value->empty()) throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "empty value for attribute type=", type);
  return *value;
}

CK_ULONG Template::requiredNumber(CK_ATTRIBUTE_TYPE type) const {
  required(type);
  return *number(type);
}

void Template::mustNotContradict(CK_ATTRIBUTE_TYPE type, bool value) const {
  if (flag(type).value_or(value) == value) return;
  throw Refusal(CKR_TEMPLATE_INCONSISTENT, "the token cannot have this value for attribute type=", type);
}

void Template::mustNotContradict(CK_ATTRIBUTE_TYPE type, CK_ULONG value) const {
  const CK_ULONG given = number(type).value_or(value);
  if (given == value) return;
  throw Refusal(CKR_TEMPLATE_INCONSISTENT, "unexpected value=", given, " for attribute type=", type);
}

void Template::mustBeOf(Kind kind) const {
  for (const CK_ATTRIBUTE& entry : entries_) {
    const CK_ATTRIBUTE_TYPE type = entry.type;
    if (type == CKA_KEY_GEN_MECHANISM || findRow(type, all, Form::historical)) {
      throw Refusal(CKR_ATTRIBUTE_READ_ONLY, "only the token sets attribute type=", type);
    }
    const Row* row = findRow(type, kind);
    if (!row) throw Refusal(CKR_ATTRIBUTE_TYPE_INVALID, "the object cannot have attribute type=", type);
    if (row->form == Form::date && entry.ulValueLen != 0 && entry.ulValueLen != sizeof(CK_DATE)) {
      throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "no date for attribute type=", type);
    }
    if (row->form == Form::number) static_cast<void>(number(type));
    if (row->form == Form::use || row->form >= Form::falseFlag) static_cast<void>(flag(type));
  }
}

Attributes withDefaults(const Template& given, Kind kind) {
  Attributes made;
  for (const CK_ATTRIBUTE& entry : given.entries()) made.set(entry.type, valueOf(entry));
  for (const Row& row : table) {
    if ((row.kinds & kind) == 0 || row.form == Form::value) continue;
    for (const CK_ATTRIBUTE_TYPE type : row.types) {
      if (row.form == Form::use || row.form == Form::historical) {
        made.setFlag(type, false);
      } else if (!made.find(type)) {
        if (row.form == Form::text || row.form == Form::date) made.set(type, {});
        if (row.form == Form::number) made.setNumber(type, 0);
        if (row.form == Form::falseFlag || row.form == Form::trueFlag) made.setFlag(type, row.form == Form::trueFlag);
      }
    }
  }
  if ((kind & allKeys) != 0) made.setNumber(CKA_KEY_GEN_MECHANISM, CK_UNAVAILABLE_INFORMATION);
  return made;
}

void checkLabelAndId(const Template& wanted) {
  const ByteView label = wanted.bytes(CKA_LABEL).value_or(ByteView{});
  if (label.size() > maximumLabelLength || std::ranges::find(label, 0) != label.end()) {
    throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "the token cannot keep this CKA_LABEL, ulValueLen=", label.size());
  }
  const std::size_t idLength = wanted.bytes(CKA_ID).value_or(ByteView{}).size();
  if (idLength > maximumIdLength) {
    throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "the token cannot keep this CKA_ID, ulValueLen=", idLength);
  }
}

CK_ULONG bitsOf(ByteView number) {
  while (!number.empty() && number.front() == 0) number = number.subspan(1);
  if (number.empty()) return 0;
  return static_cast<CK_ULONG>((number.size() - 1) * 8) + static_cast<CK_ULONG>(std::bit_width(number.front()));
}

void checkRsaKey(const Template& publicParts, CK_ULONG bits) {
  ByteView exponent = publicParts.bytes(CKA_PUBLIC_EXPONENT).value_or(rsaPublicExponentBytes);
  while (!exponent.empty() && exponent.front() == 0) exponent = exponent.subspan(1);
  if (!std::ranges::equal(exponent, rsaPublicExponentBytes)) {
    throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "the token's public exponent is 65537");
  }
  const bool isSizeOfToken = std::ranges::any_of(
      keyTypes, [&](const KeyTypeInfo& row) { return row.algorithm == KeyAlgorithm::rsa && row.bits == bits; });
  if (!isSizeOfToken) throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "no size of the token, bits=", bits);
}

}  // namespace tavrin::standard
