// One open session and the operation that may be in progress on it.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "devlib/device_library.h"
#include "pkcs11.h"
#include "platform/secret_memory.h"

namespace tavrin {

struct Mechanism;  // a row of the table in crypto/mechanisms.h

// The operation in progress. The log shows these numbers.
enum class Operation : std::uint32_t {
  none = 0,
  search = 1,                  // C_FindObjectsInit, from any state
  encryption = 2,              // C_EncryptInit, from none
  decryption = 3,              // C_DecryptInit, from none
  digest = 4,                  // C_DigestInit, from none or again from digest
  signing = 5,                 // C_SignInit, from none
  verification = 7,            // C_VerifyInit, from none
  encryptionDuringDigest = 9,  // C_EncryptInit, from digest. Only a search or closing the session leaves this state.
  decryptionDuringDigest = 10  // C_DecryptInit, from digest. The same.
};

// The number that the log shows, as a signed integer.
constexpr std::int32_t code(Operation operation) { return static_cast<std::int32_t>(operation); }

// The results of the last search. They stay until the next one.
struct Search {
  std::vector<TavrinCertificate> certificates;
  std::vector<TavrinKeyPair> keyPairs;
  bool findsPublicKeys = false;   // reports the public keys of keyPairs
  bool findsPrivateKeys = false;  // reports the private keys of keyPairs
  std::uint32_t cursor = 0;       // the number of results that were returned
};

// Data that is passed in parts: of a digest, or of a signature to make or to verify. Digests and signatures share it,
// and neither C_SignInit nor C_VerifyInit empties it, so the parts of an abandoned operation become part of the next
// one.
struct Parts {
  // The parts themselves for a mechanism without a hash, or a finished digest.
  SecretBytes data;
  // The running hash, an object of the device library; null when there is none.
  void* hashContext = nullptr;
};

// Applications must use a session in one thread at a time. Other threads read and change `state` only: a login or
// logout on another session of the token, and the device monitor.
struct Session {
  std::atomic<CK_STATE> state = CKS_RO_PUBLIC_SESSION;
  CK_SLOT_ID slotID = 0;
  TokenInfo device;  // as it was when the session was opened

  Operation activeOperation = Operation::none;
  // The key of the operation. It points into the one buffer of key pairs (objects/object_handles.h), which the next
  // resolution of any session overwrites.
  const TavrinKeyPair* operationKey = nullptr;
  // The mechanism of a signature, a verification or an encryption. Set while such an operation is in progress.
  const Mechanism* mechanism = nullptr;
  // A finished signature, ciphertext or plaintext, kept from the query for its length to the call that fetches it.
  SecretBytes result;
  Parts parts;
  Search search;

  // The device's identifier, first argument of the library's operations.
  const char* deviceId() const { return device.serialNumber.c_str(); }
  bool isUserSession() const {
    const CK_STATE now = state;
    return now == CKS_RO_USER_FUNCTIONS || now == CKS_RW_USER_FUNCTIONS;
  }
  bool isPublicSession() const {
    const CK_STATE now = state;
    return now == CKS_RO_PUBLIC_SESSION || now == CKS_RW_PUBLIC_SESSION;
  }
  bool isReadOnly() const { return isReadOnlyState(state); }

  // Sets the public state that follows a logout.
  void dropLogin() { state = isReadOnly() ? CKS_RO_PUBLIC_SESSION : CKS_RW_PUBLIC_SESSION; }

  static bool isReadOnlyState(CK_STATE state) {
    return state == CKS_RO_PUBLIC_SESSION || state == CKS_RO_USER_FUNCTIONS;
  }
};

}  // namespace tavrin
