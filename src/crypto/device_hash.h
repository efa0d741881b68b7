// Hashing with the device library. The statuses are the library's: 0 for success. The library owns the hash contexts;
// the module has no operation to free them, and the library limits how many it keeps.
#pragma once

#include <array>
#include <cstdint>

#include "crypto/mechanisms.h"
#include "devlib/records.h"
#include "sessions/session.h"

namespace tavrin {

// A digest as the device returned it. No digest of a device is longer than the 64 bytes of SHA-512.
class Digest {
 public:
  static constexpr int capacity = 64;

  ByteView bytes() const { return ByteView(buffer_).first(length_); }

  // Ends the hash of `context` and stores its digest here, also if the status is an error. The context must not be used
  // again. `inLength` is the length that the library receives; it ignores it. Returns the device's status.
  int finish(void* context, int inLength);

 private:
  std::array<std::uint8_t, capacity> buffer_{};
  std::size_t length_ = 0;
};

// Begins a hash on the session's device and stores its context in `context`. Returns the device's status.
int initHash(const Session& session, HashCode hash, void** context);

// Returns the device's status.
int updateHash(void* context, ByteView data);

// The step in which a hash failed, and the device's status.
struct HashFailure {
  enum Step { none, init, update, final } step;
  int status;
};

// Hashes a whole message in a new context.
HashFailure hashMessage(const Session& session, HashCode hash, ByteView message, Digest& digest);

}  // namespace tavrin
