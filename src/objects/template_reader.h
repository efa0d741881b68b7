// Reading the attribute templates that callers pass.
#pragma once

#include <algorithm>
#include <cstring>
#include <span>

#include "devlib/records.h"
#include "pkcs11.h"

namespace tavrin {

inline std::span<CK_ATTRIBUTE> templateEntries(CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
  return {pTemplate, static_cast<std::size_t>(ulCount)};
}

inline ByteView valueOf(const CK_ATTRIBUTE& attribute) {
  return {static_cast<const std::uint8_t*>(attribute.pValue), static_cast<std::size_t>(attribute.ulValueLen)};
}

// Reads a number. If the value is shorter than the number, the missing bytes are zero; surplus bytes are not read.
inline CK_ULONG numberOf(ByteView value) {
  CK_ULONG number = 0;
  std::memcpy(&number, value.data(), std::min(value.size(), sizeof number));
  return number;
}

// Calls `visit(type, bytes)` for every entry that has a value. An entry without one (pValue NULL or ulValueLen 0) is
// skipped silently.
template <typename Visitor>
void forEachGiven(CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, Visitor&& visit) {
  for (const CK_ATTRIBUTE& attribute : templateEntries(pTemplate, ulCount)) {
    const ByteView value = valueOf(attribute);
    if (value.data() != nullptr && !value.empty()) visit(CK_ATTRIBUTE_TYPE{attribute.type}, value);
  }
}

}  // namespace tavrin
