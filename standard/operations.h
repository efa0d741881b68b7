// The operations that a session remembers between calls.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "standard/attributes.h"
#include "standard/mechanisms.h"

namespace tavrin::standard {

struct Object;
struct State;
struct Token;
class ModuleSession;

// What a search found when it began.
struct Search {
  std::vector<CK_OBJECT_HANDLE> found;
  std::size_t next = 0;
};

// A hash that the module computes in a session of its own. No lock is needed.
class HashRun {
 public:
  HashRun(State& state, Token& token, const HashMechanism& hash);
  ~HashRun();  // finishes the hash, which the device library would keep otherwise

  const HashMechanism& mechanism() const { return hash_; }
  bool inParts() const { return inParts_; }

  void update(ByteView data);
  // The digest. No other call may follow.
  SecretBytes finish();

 private:
  const HashMechanism& hash_;
  std::unique_ptr<ModuleSession> session_;
  bool inParts_ = false;
  bool finished_ = false;
};

// A signature, verification, encryption or decryption. One with a private key ends with the login.
struct KeyOperation {
  KeyOperation(const Mechanism& itsMechanism, std::shared_ptr<Object> itsKey);

  bool isOver() const;  // the login under which it began has ended

  const Mechanism& mechanism;
  const std::shared_ptr<Object> key;
  const unsigned logouts;
  std::size_t resultLength = 0;  // of a signature or ciphertext; at most this much for a plaintext
  std::size_t digestLength = 0;  // that a raw PSS mechanism takes
  bool inParts = false;
  SecretBytes collected;          // the parts, where the token wants them together
  std::unique_ptr<HashRun> hash;  // of the parts otherwise
};

}  // namespace tavrin::standard
