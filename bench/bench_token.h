// A software token of its own for the benchmarks, and a logged-in session of the module on it.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "devlib/device_library.h"
#include "pkcs11.h"

namespace bench {

inline constexpr const char* pin = "benchmark";

// Ends the benchmark program when a call of the module or the device library fails: its times would mean nothing.
void require(bool succeeded, const char* what);

// Temporary folders for tokens, log and registry, named to the module by the environment; removed at the end. There is
// no registry yet, as on a machine that nobody has configured: the log's level is 2.
class Surroundings {
 public:
  Surroundings();
  ~Surroundings();
  Surroundings(const Surroundings&) = delete;
  Surroundings& operator=(const Surroundings&) = delete;

  const std::filesystem::path& folder() const { return folder_; }
  // A registry with that level, 2 or 3, in a place where nobody looks for it.
  std::filesystem::path unusedRegistry(int level) const;
  std::chrono::steady_clock::time_point made() const { return made_; }

 private:
  std::filesystem::path folder_;
  std::chrono::steady_clock::time_point made_;
};

// Puts a registry with that level in its place for as long as this lives; one at a time.
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

// The one token: an RSA 2048 and two P-256 key pairs and a certificate. Made before the module is initialised.
struct BenchToken {
  std::string serial;
  TavrinKeyPair rsa;
  TavrinKeyPair p256;
  void* instance = nullptr;  // of the device library, for the direct calls
};

// Makes the token and the surroundings at the first call; both last until the program ends.
const BenchToken& token();
const Surroundings& surroundings();

// The token holds `count` P-256 key pairs instead, copies of one, from now on.
void setKeyPairCount(std::size_t count);
// The token holds its own key pairs again.
void restoreKeyPairs();

// A session that is logged in as the user, on a module that is initialised.
CK_SESSION_HANDLE session();

}  // namespace bench
