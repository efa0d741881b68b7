// The software token of the benchmarks, and a session of the module that is logged in to it.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "devlib/device_library.h"
#include "pkcs11.h"

namespace bench {

inline constexpr char pin[] = "benchmark";

// C_Login of the user, by the given library.
CK_RV login(CK_C_Login cLogin, CK_SESSION_HANDLE session);

// The file of the log level in a registry that begins with this folder.
std::filesystem::path levelFile(const std::filesystem::path& registry);

// Ends the program when a call of the module or the device library has failed, because the times would be meaningless.
void require(bool succeeded, const char* what);

// Temporary folders for tokens, log and registry, which the environment passes to the module. Removed at the end. There
// is no registry yet, as on a machine that is not configured; the log level is 2.
class Surroundings {
 public:
  Surroundings();
  ~Surroundings();
  Surroundings(const Surroundings&) = delete;
  Surroundings& operator=(const Surroundings&) = delete;

  const std::filesystem::path& folder() const { return folder_; }
  // A registry with that level, 2 or 3, in a place where the module does not look.
  std::filesystem::path unusedRegistry(int level) const;
  std::chrono::steady_clock::time_point made() const { return made_; }

 private:
  std::filesystem::path folder_;
  std::chrono::steady_clock::time_point made_;
};

// Moves a registry with that level to its place until it is destroyed. One at a time.
class LogLevel {
 public:
  LogLevel(const Surroundings& surroundings, int level);
  ~LogLevel();
  LogLevel(const LogLevel&) = delete;
  LogLevel& operator=(const LogLevel&) = delete;

 private:
  std::filesystem::path unused_;
  std::filesystem::path used_;
};

// The token, with an RSA 2048 key pair, two P-256 key pairs and a certificate. Made before the module is initialised.
struct BenchToken {
  std::string serial;
  TavrinKeyPair rsa;
  TavrinKeyPair p256;
  void* instance = nullptr;  // of the device library, for the direct calls
};

// Both make the surroundings, and token() the token, at the first call. They exist until the program ends.
const BenchToken& token();
const Surroundings& surroundings();

// From now on the token has `count` P-256 key pairs instead, all copies of one.
void setKeyPairCount(std::size_t count);
// The token has its own key pairs again.
void restoreKeyPairs();

// A session that is logged in as the user, on a module that is initialised.
CK_SESSION_HANDLE session();

}  // namespace bench
