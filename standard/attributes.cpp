#include "standard/attributes.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "standard/refusal.h"

namespace tavrin::standard {
namespace {

constexpr CK_ATTRIBUTE_TYPE flags[] = {CKA_TOKEN,
                                       CKA_PRIVATE,
                                       CKA_TRUSTED,
                                       CKA_SENSITIVE,
                                       CKA_ENCRYPT,
                                       CKA_DECRYPT,
                                       CKA_WRAP,
                                       CKA_UNWRAP,
                                       CKA_SIGN,
                                       CKA_SIGN_RECOVER,
                                       CKA_VERIFY,
                                       CKA_DERIVE,
                                       CKA_VERIFY_RECOVER,
                                       CKA_EXTRACTABLE,
                                       CKA_LOCAL,
                                       CKA_MODIFIABLE,
                                       CKA_COPYABLE,
                                       CKA_NEVER_EXTRACTABLE,
                                       CKA_ALWAYS_SENSITIVE,
                                       CKA_ALWAYS_AUTHENTICATE,
                                       CKA_DESTROYABLE,
                                       CKA_WRAP_WITH_TRUSTED};

template <typename Number>
Number numberIn(ByteView value) {
  Number number{};
  std::memcpy(&number, value.data(), sizeof number);
  return number;
}

}  // namespace

ByteView valueOf(const CK_ATTRIBUTE& attribute) {
  if (!attribute.pValue) return {};
  return {static_cast<const std::uint8_t*>(attribute.pValue), static_cast<std::size_t>(attribute.ulValueLen)};
}

bool isFlag(CK_ATTRIBUTE_TYPE type) { return std::ranges::find(flags, type) != std::end(flags); }

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

void Template::mustBeOf(std::span<const CK_ATTRIBUTE_TYPE> known) const {
  constexpr CK_ATTRIBUTE_TYPE histories[] = {CKA_LOCAL, CKA_ALWAYS_SENSITIVE, CKA_NEVER_EXTRACTABLE,
                                             CKA_KEY_GEN_MECHANISM};
  for (const CK_ATTRIBUTE& entry : entries_) {
    const CK_ATTRIBUTE_TYPE type = entry.type;
    if (std::ranges::find(histories, type) != std::end(histories)) {
      throw Refusal(CKR_ATTRIBUTE_READ_ONLY, "only the token sets attribute type=", type);
    }
    if (std::ranges::find(known, type) == known.end()) {
      throw Refusal(CKR_ATTRIBUTE_TYPE_INVALID, "the object cannot have attribute type=", type);
    }
    if (isFlag(type)) static_cast<void>(flag(type));
  }
}

void checkLabelAndId(const Template& wanted) {
  const ByteView label = wanted.bytes(CKA_LABEL).value_or(ByteView{});
  if (label.size() > maximumLabelLength || std::ranges::find(label, 0) != label.end()) {
    throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "the token cannot keep this CKA_LABEL, ulValueLen=", label.size());
  }
  const std::size_t idLength = wanted.bytes(CKA_ID).value_or(ByteView{}).size();
  if (idLength > longestId) {
    throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "the token cannot keep this CKA_ID, ulValueLen=", idLength);
  }
}

}  // namespace tavrin::standard
