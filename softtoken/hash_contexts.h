// The running hashes that callers hold by an opaque pointer, which is checked at every use.
#pragma once

#include <map>
#include <mutex>

#include "softtoken/crypto_library.h"

namespace softtoken {

// Safe for any number of threads. While one uses a context, there is no such context for the others.
class HashContexts {
 public:
  // Throws badArgument for an unknown code. Of too many that nobody finishes, the oldest are dropped.
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
  // By numbers that are never given out again, and are no addresses: a stale context names neither a new hash nor
  // memory.
  using RunningByNumber = std::map<std::uintptr_t, Running>;

  RunningByNumber::node_type take(const void* context);

  std::mutex mutex_;
  RunningByNumber running_;  // the oldest first
  std::uintptr_t last_ = 0;
};

}  // namespace softtoken
