#include "tool/log_names.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "devlib/device_constants.h"
#include "pkcs11.h"
#include "softtoken/failure.h"
#include "tool/cryptoki_names.h"

namespace tool {
namespace {

using Number = std::uint64_t;

struct NameRow {
  Number number;
  const char* name;
};

// cryptoki_names.h lists the constants of pkcs11t.h.
constexpr NameRow mechanisms[] = {TAVRIN_MECHANISMS};
constexpr NameRow attributes[] = {TAVRIN_ATTRIBUTES};
constexpr NameRow classes[] = {TAVRIN_CLASSES};
constexpr NameRow keyTypes[] = {TAVRIN_KEY_TYPES};
constexpr NameRow states[] = {TAVRIN_STATES};
constexpr NameRow users[] = {TAVRIN_USERS};

constexpr NameRow row(softtoken::Status status, const char* name) { return {static_cast<Number>(status), name}; }
constexpr NameRow statuses[] = {row(softtoken::Status::wrongPassword, "wrong password"),
                                row(softtoken::Status::passwordLocked, "password locked"),
                                row(softtoken::Status::badArgument, "argument not accepted"),
                                row(softtoken::Status::notFound, "object not found"),
                                row(softtoken::Status::wrongKeyType, "wrong key type"),
                                row(softtoken::Status::badSignature, "signature does not match"),
                                row(softtoken::Status::badCiphertext, "ciphertext does not fit the key"),
                                row(softtoken::Status::outOfMemory, "out of memory"),
                                row(softtoken::Status::full, "token is full"),
                                row(softtoken::Status::deviceFault, "token removed, damaged or failing"),
                                {tavrin::statusTokenFullLegacy, "token is full"}};

template <std::size_t size>
const char* find(const NameRow (&table)[size], Number number) {
  const auto* row = std::ranges::find(table, number, &NameRow::number);
  return row == std::end(table) ? nullptr : row->name;
}

struct Marker {
  std::string_view text;  // directly before the number
  const char* (*nameOf)(Number);
};

// The first row that fits is used.
constexpr Marker markers[] = {
    {"keytype : ", [](Number number) { return find(keyTypes, number); }},
    {"object class : ", [](Number number) { return find(classes, number); }},
    {"object class not supported : ", [](Number number) { return find(classes, number); }},
    {"mechanism=", [](Number number) { return find(mechanisms, number); }},
    {"mechanism type=", [](Number number) { return find(mechanisms, number); }},
    {"mechanism : ", [](Number number) { return find(mechanisms, number); }},
    {"userType=", [](Number number) { return find(users, number); }},
    {"state=", [](Number number) { return find(states, number); }},
    {"state : ", [](Number number) { return find(states, number); }},
    {" type=", [](Number number) { return find(attributes, number); }},
    {" type : ", [](Number number) { return find(attributes, number); }},
    {"failed : ", [](Number number) { return find(statuses, number); }},
    {"failed: ", [](Number number) { return find(statuses, number); }},
    {"failed ", [](Number number) { return find(statuses, number); }},
    {"failed ret=", [](Number number) { return find(statuses, number); }},
};

const char* nameAt(std::string_view before, Number number) {
  const auto* marker = std::ranges::find_if(markers, [&](const Marker& row) { return before.ends_with(row.text); });
  return marker == std::end(markers) ? nullptr : marker->nameOf(number);
}

bool isDigit(char letter) { return letter >= '0' && letter <= '9'; }

}  // namespace

std::string withNames(std::string_view message) {
  std::string result;
  for (std::size_t at = 0; at < message.size();) {
    if (!isDigit(message[at])) {
      result += message[at++];
      continue;
    }
    Number number = 0;
    const char* begin = message.data() + at;
    const auto parsed = std::from_chars(begin, message.data() + message.size(), number);
    const char* name = parsed.ec == std::errc{} ? nameAt(message.substr(0, at), number) : nullptr;
    const auto length = static_cast<std::size_t>(parsed.ptr - begin);
    result.append(message, at, length);
    if (name) result.append(" (").append(name).append(")");
    at += length;
  }
  return result;
}

}  // namespace tool
