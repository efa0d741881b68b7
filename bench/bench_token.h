// A software token of its own for the benchmarks, and a logged-in session of the module on it.
#pragma once

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

// Temporary folders for tokens, log and registry, named to the module by the environment; removed at the end.
class Surroundings {
 public:
  Surroundings();
  ~Surroundings();
  Surroundings(const Surroundings&) = delete;
  Surroundings& operator=(const Surroundings&) = delete;

  // Without a value, as on a machine that nobody has configured, the level is 2.
  void setLogLevel(int level) const;
  void unsetLogLevel() const;
  const std::filesystem::path& folder() const { return folder_; }

 private:
  std::filesystem::path folder_;
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
