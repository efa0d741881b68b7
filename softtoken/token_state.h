// The content of a token and its form in the token's files. docs/token-file.md describes the format.
#pragma once

#include <string>

#include "devlib/device_library.h"
#include "softtoken/crypto_library.h"

namespace softtoken {

// TokenInfo::model of every software token.
inline constexpr char softTokenModel[] = "Soft token";

constexpr std::uint32_t maxTries = 10;
// Object handles have twelve bits for the number of a key pair or certificate.
constexpr std::uint32_t largestId = 4095;

enum class Role { user, securityOfficer };

// The token's master key, sealed under a key that is derived from a password.
struct PasswordLock {
  ScryptCost cost;
  Bytes salt;
  Bytes sealedMasterKey;
  bool operator==(const PasswordLock&) const = default;
};

// What authenticates a token file under the master key.
struct FileProof {
  Digest256 contentHash;
  Digest256 mac;
};

// The record of a key pair, with its private key.
struct StoredKeyPair : TavrinKeyPair {
  Bytes sealedPrivateKey;  // under the master key
};

struct TokenState {
  std::string serial;
  std::string label;
  std::string firmware;
  std::uint32_t capacity = 0;  // key pairs and certificates together
  std::uint32_t lastKeyPairId = 0;
  std::uint32_t lastCertificateId = 0;
  PasswordLock user;
  PasswordLock securityOfficer;
  std::vector<StoredKeyPair> keyPairs;
  std::vector<TavrinCertificate> certificates;
  std::optional<FileProof> proof;  // of the file that was decoded; empty for files of the first format

  const PasswordLock& lockOf(Role role) const { return role == Role::user ? user : securityOfficer; }
  std::size_t objectCount() const { return keyPairs.size() + certificates.size(); }
};

// Password tries left. They have a file of their own, because each try is written before the password is checked.
struct Tries {
  std::uint32_t user = maxTries;
  std::uint32_t securityOfficer = maxTries;

  std::uint32_t& of(Role role) { return role == Role::user ? user : securityOfficer; }
  std::uint32_t of(Role role) const { return role == Role::user ? user : securityOfficer; }
};

// The token file, authenticated under the master key. `proof` is not used.
Bytes encodeTokenState(const TokenState& state, ByteView masterKey);
Bytes encodeTries(const Tries& tries);

// Whether the file of this state was written with the master key. False without a proof.
bool isAuthentic(const TokenState& state, ByteView masterKey);

// Throw deviceFault for anything but a complete, undamaged file. A token file's proof is not checked.
TokenState decodeTokenState(ByteView file);
Tries decodeTries(ByteView file);

}  // namespace softtoken
