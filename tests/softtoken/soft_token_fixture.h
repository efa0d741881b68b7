// A folder with one connected token, an open instance, and short forms of the operations.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>

#include "devlib/device_library.h"
#include "softtoken/failure.h"
#include "softtoken/token_folders.h"

using Bytes = std::vector<std::uint8_t>;

inline constexpr int ok = 0;
inline constexpr int wrongPassword = static_cast<int>(softtoken::Status::wrongPassword);
inline constexpr int locked = static_cast<int>(softtoken::Status::passwordLocked);
inline constexpr int badArgument = static_cast<int>(softtoken::Status::badArgument);
inline constexpr int notFound = static_cast<int>(softtoken::Status::notFound);
inline constexpr int deviceFault = 48;

inline constexpr const char* pin = "user password";
inline constexpr const char* soPin = "officer password";

Bytes fromHex(std::string_view text);
// Bytes that differ from each other, the same in every run.
Bytes pattern(std::size_t count);
inline int sizeOf(const Bytes& bytes) { return static_cast<int>(bytes.size()); }

struct Made {
  int status;
  Bytes bytes;
};

class SoftTokenTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  std::filesystem::path tokenFolder(const char* name = "one") const { return root / name; }
  // The token as another process sees it.
  softtoken::Token otherProcess() const { return softtoken::Token(tokenFolder()); }
  // Changes the token as another process that has the user's password.
  void edit(const std::function<void(softtoken::TokenState&)>& change) const;

  int login(const char* password, int kind = 1);  // sets `tries`
  using Answer = std::pair<int, int>;             // the status and the tries left
  Answer answer(const char* password, int kind = 1) {
    const int status = login(password, kind);
    return {status, tries};
  }
  TavrinKeyPair generate(std::uint32_t keyType);
  const std::vector<TavrinKeyPair>& keyPairs() { return tavrin_getKeyPairList(device.c_str(), instance); }
  const std::vector<TavrinCertificate>& certificates() { return tavrin_getCertificateList(device.c_str(), instance); }

  Made sign(const TavrinKeyPair& key, const Bytes& input, bool pss = false, const char* password = pin);
  int verify(const TavrinKeyPair& key, const Bytes& input, const Bytes& signature, bool pss = false);

  std::filesystem::path root;
  std::string device;
  void* instance = nullptr;
  int tries = 0;
};
