// Hashing through the device library.
#pragma once

#include <array>
#include <cstdint>

#include "crypto/mechanisms.h"
#include "devlib/records.h"
#include "sessions/session.h"

namespace tavrin {

// A digest as the device gave it; no device digest is longer than SHA-512's 64 bytes.
class Digest {
 public:
  static constexpr int capacity = 64;

  ByteView bytes() const { return ByteView(buffer_).first(length_); }

  // Ends the hash into this digest and returns the device's status. `inLength` is what the device is told of the
  // buffer's size; it ignores it.
  int finish(void* context, int inLength);

 private:
  std::array<std::uint8_t, capacity> buffer_{};
  std::size_t length_ = 0;
};

// Begins a hash on the session's device; `context` receives the library's own object.
int initHash(const Session& session, HashCode hash, void** context);
int updateHash(void* context, const std::uint8_t* data, CK_ULONG length);

// The step of a whole hash that failed, with the device's status.
struct HashFailure {
  enum Step { none, init, update, final } step;
  int status;
};

// Hashes a whole message in a context of its own.
HashFailure hashMessage(const Session& session, HashCode hash, const std::uint8_t* data, CK_ULONG length,
                        Digest& digest);

}  // namespace tavrin
