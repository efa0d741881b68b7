// One open session and the operation that may be in progress on it.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "devlib/device_library.h"
#include "pkcs11.h"
#include "platform/secret_memory.h"

namespace tavrin {

// What a session is busy with. The numbers are those that the log shows.
enum class Operation : std::uint32_t {
  none = 0,
  search = 1,                  // begun by C_FindObjectsInit whatever went on before
  encryption = 2,              // C_EncryptInit, from none
  decryption = 3,              // C_DecryptInit, from none
  digest = 4,                  // C_DigestInit, from none or again from digest
  signing = 5,                 // C_SignInit, from none
  verification = 7,            // C_VerifyInit, from none
  encryptionDuringDigest = 9,  // C_EncryptInit, from digest: a dead end that only a search or closing leaves
  decryptionDuringDigest = 10  // C_DecryptInit, from digest: the same
};

// The number that the log shows, signed as applications have always seen it.
constexpr std::int32_t code(Operation operation) { return static_cast<std::int32_t>(operation); }

// Used by one thread at a time, as Cryptoki asks of applications; only `state` is changed by other threads too (a
// login or logout on another session of the token, the device monitor).
struct Session {
  CK_SESSION_HANDLE handle = 0;
  std::atomic<CK_STATE> state = CKS_RO_PUBLIC_SESSION;
  CK_SLOT_ID slotID = 0;
  TokenInfo device;  // as it was when the session was opened

  Operation activeOperation = Operation::none;

  // The results of a search; they stay until the next one.
  std::vector<TavrinCertificate> findCertificates;
  std::vector<TavrinKeyPair> findKeyPairs;
  bool findPublicKeys = false;   // the search reports the public keys of findKeyPairs
  bool findPrivateKeys = false;  // the search reports their private keys
  std::uint32_t findCursor = 0;  // results already handed out

  // Points into the object store's one key-pair buffer, so that it shows whatever key pair was resolved last.
  const TavrinKeyPair* operationKey = nullptr;
  // A finished signature, ciphertext or plaintext between the query for its length and the call that fetches it.
  SecretBytes operationData;
  // The input of a raw signature in parts, or a finished digest. Only the digest calls and the final calls of
  // signatures empty it: what an abandoned operation left here stays for the next one.
  SecretBytes digestData;
  // The running hash of a digest or of a signature in parts; left alone by SignInit and VerifyInit like digestData.
  void* hashContext = nullptr;
  CK_MECHANISM_TYPE mechanism = 0;        // of the signature
  bool operationFlag = false;             // the signature is a PSS one
  CK_MECHANISM_TYPE cipherMechanism = 0;  // of the encryption

  // The device's identifier, first argument of the library's operations.
  const char* deviceId() const { return device.serialNumber.c_str(); }
  bool isUserSession() const { return state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS; }
};

}  // namespace tavrin
