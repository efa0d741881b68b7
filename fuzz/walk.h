// What the random walks share: comparing with a model, and templates that are mostly wrong.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "fake_device_library.h"
#include "fuzz_input.h"
#include "pkcs11.h"
#include "test_platform.h"

inline constexpr CK_ATTRIBUTE_TYPE attributeTypes[] = {
    CKA_ID,    CKA_ISSUER,  CKA_MODULUS,  CKA_EC_PARAMS,  CKA_MODULUS_BITS,
    CKA_CLASS, CKA_SUBJECT, CKA_DECRYPT,  CKA_EC_POINT,   CKA_SERIAL_NUMBER,
    CKA_TOKEN, CKA_LABEL,   CKA_PRIME_1,  CKA_VALUE_LEN,  CKA_PRIVATE_EXPONENT,
    CKA_SIGN,  CKA_VALUE,   CKA_KEY_TYPE, CKA_START_DATE, 0x80000123};
inline unsigned long callsMade = 0;

// Logs to a folder of its own until the end, which reports the number of calls.
inline void startWalk() {
  static const auto folder = testPlatform::freshFolder("walk");
  testPlatform::useFolder(folder);
  testPlatform::setEnvironment("TAVRIN_HOME", "home");
  std::atexit([] {
    std::fprintf(stderr, "%lu calls, not counting those that compare sessions\n", callsMade);
    std::filesystem::remove_all(folder);
  });
}

// Connects a token with an RSA key, a P-256 key and a certificate, whose values are as long as real ones.
inline const std::string modulus(256, 'R'), point = '\x04' + std::string(64, 'P');
inline void plug(const std::string& serial) {
  fake::Device device = fake::device(serial);
  device.keyPairs = {fake::keyPair(1, 2, modulus, "RSA"), fake::keyPair(2, 5, point, "EC")};
  device.certificates = {fake::certificate(1, "CN=User|CN=Root|01", "Certificate")};
  fake::edit()->devices.push_back(device);
}

[[noreturn]] inline void stop(const char* what, CK_ULONG got, CK_ULONG expected) {
  std::fprintf(stderr, "the walk differs from the model: %s is 0x%lX, not 0x%lX\n", what,
               static_cast<unsigned long>(got), static_cast<unsigned long>(expected));
  std::abort();
}

inline void same(const char* what, CK_ULONG got, CK_ULONG expected) {
  if (got != expected) stop(what, got, expected);
}

inline CK_BYTE_PTR bytesOf(std::string& text) { return reinterpret_cast<CK_BYTE_PTR>(text.data()); }
inline CK_ULONG lengthOf(const std::string& text) { return static_cast<CK_ULONG>(text.size()); }
inline std::string number(std::size_t value) {
  const auto number = static_cast<CK_ULONG>(value);
  return {reinterpret_cast<const char*>(&number), sizeof number};
}

// Each value of a template has memory of its own, so that a sanitizer sees every access beyond it.
class RandomTemplate {
 public:
  explicit RandomTemplate(FuzzInput& input) {
    const std::size_t count = input.below(5);
    for (std::size_t i = 0; i < count; ++i) {
      const CK_ATTRIBUTE_TYPE type = attributeTypes[input.below(std::size(attributeTypes))];
      std::string value = valueFor(type, input);
      // A derived secret is as long as its caller wants, and stays: gigabytes would be right, but no finding.
      if (type == CKA_VALUE_LEN && value.size() > 1) std::fill(value.begin() + 1, value.end(), '\0');
      const CK_ULONG length = lengthOf(value);
      if (type == CKA_LABEL) value += '\0';  // read up to its NUL by searches
      memory_.push_back(std::make_unique<char[]>(value.size()));
      std::memcpy(memory_.back().get(), value.data(), value.size());
      attributes_.push_back({type, input.chance(16) ? nullptr : memory_.back().get(), length});
    }
    empty_ = input.chance(16);
  }
  CK_ATTRIBUTE_PTR data() { return empty_ ? nullptr : attributes_.data(); }
  CK_ULONG size() const { return static_cast<CK_ULONG>(attributes_.size()); }

 private:
  static std::string valueFor(CK_ATTRIBUTE_TYPE type, FuzzInput& input) {
    if (input.chance(64)) return input.text(40);
    if (type == CKA_CLASS) return number(input.below(6));
    if (type == CKA_KEY_TYPE) return number(input.chance(128) ? CKK_RSA : CKK_EC);
    if (type == CKA_MODULUS_BITS) return number(1024 * input.below(6));
    if (type == CKA_VALUE_LEN) return number(input.below(200));
    if (type == CKA_ID) return "id-1";
    if (type == CKA_VALUE) return input.chance(128) ? "CN=Leaf|CN=Root|2" : "CN=Root|CN=Root|1";
    if (type == CKA_EC_PARAMS) return "\x06\x08\x2A\x86\x48\xCE\x3D\x03\x01\x07";
    return input.text(200);
  }

  std::vector<std::unique_ptr<char[]>> memory_;
  std::vector<CK_ATTRIBUTE> attributes_{};
  bool empty_ = false;
};
