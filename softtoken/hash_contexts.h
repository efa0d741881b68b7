// The hashes in progress. Callers identify them by an opaque pointer, which is checked at every use.
#pragma once

#include <map>
#include <mutex>

#include "softtoken/crypto_library.h"

namespace softtoken {

// Any number of threads may call this class. While one thread uses a context, calls of other threads with the same
// context throw notFound.
class HashContexts {
 public:
  // Throws badArgument for an unknown code. At most 1024 contexts are kept; the oldest is freed first.
  void* open(int hashCode);

  // Throw notFound for anything but a context that is open.
  void update(const void* context, ByteView data);
  Bytes finish(const void* context);  // closes it

  void clear();

 private:
  struct Running {
    int algorithm;
    std::unique_ptr<gcry_md_handle, ReleaseWith<gcry_md_close>> hash;
  };
  // Each context gets a new number, so that a closed context is never mistaken for a later one.
  using RunningByNumber = std::map<std::uintptr_t, Running>;

  RunningByNumber::node_type take(const void* context);

  std::mutex mutex_;
  RunningByNumber running_;  // the oldest first
  std::uintptr_t last_ = 0;
};

}  // namespace softtoken
