// Everything that the operations share in one process. It is made at the first use and never destroyed: other threads
// may still be in an operation while the process ends.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "softtoken/hash_contexts.h"
#include "softtoken/per_thread.h"
#include "softtoken/token_directory.h"

namespace softtoken {

class LibraryState {
 public:
  static LibraryState& get();

  TokenDirectory tokens;
  HashContexts hashes;
  PerThread<std::shared_ptr<const TokenState>> listedKeyPairs;
  PerThread<std::shared_ptr<const TokenState>> listedCertificates;
  PerThread<SecretBytes> plaintexts;
  PerThread<SecretBytes> secrets;

  // Instances only count who uses the library, as every operation works without one.
  void* openInstance();
  // Wipes what passwords have left behind and, with the last instance, all that was handed out. Strangers are ignored.
  void closeInstance(void* instance);

  // Wipes and empties everything but the instances.
  void clear();

 private:
  std::mutex mutex_;
  std::vector<std::unique_ptr<char>> instances_;
};

}  // namespace softtoken
