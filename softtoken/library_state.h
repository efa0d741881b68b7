// The state that all operations of one process share. It is made at the first use and never destroyed, because other
// threads may be in an operation while the process ends.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "softtoken/hash_contexts.h"
#include "softtoken/per_thread.h"
#include "softtoken/token_directory.h"

namespace softtoken {

// The records that a listing has returned, and the state from which they were copied.
struct ListedKeyPairs {
  std::shared_ptr<const TokenState> state;
  std::vector<TavrinKeyPair> records;
};

class LibraryState {
 public:
  static LibraryState& get();

  TokenDirectory tokens;
  HashContexts hashes;
  PerThread<ListedKeyPairs> listedKeyPairs;
  PerThread<std::shared_ptr<const TokenState>> listedCertificates;
  PerThread<SecretBytes> plaintexts;
  PerThread<SecretBytes> secrets;

  // Instances only count the users of the library; every operation works without one.
  void* openInstance();
  // Wipes master keys and, with the last instance, all results that callers may still read. Ignores unknown instances.
  void closeInstance(void* instance);

  // Wipes master keys, hash contexts and all results that callers may still read. Tokens and instances stay.
  void clear();

 private:
  std::mutex mutex_;
  std::vector<std::unique_ptr<char>> instances_;
};

}  // namespace softtoken
