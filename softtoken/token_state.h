// What a token holds, and its form in the token's file.
#pragma once

#include <string>

#include "devlib/device_library.h"
#include "softtoken/crypto_library.h"

namespace softtoken {

constexpr std::uint32_t mostTries = 10;
// Object handles leave twelve bits for the number of a key pair or certificate.
constexpr std::uint32_t largestId = 4095;

enum class Role { user, securityOfficer };

// The token's master key, sealed under a key that is derived from one password.
struct PasswordLock {
  ScryptCost cost;
  Bytes salt;
  Bytes sealedMasterKey;
  bool operator==(const PasswordLock& other) const {
    return salt == other.salt && sealedMasterKey == other.sealedMasterKey;
  }
};

// Key pairs and their private keys, sealed under the master key, stand in the same order.
struct TokenState {
  std::string serial;
  std::string label;
  std::string firmware;
  std::uint32_t capacity = 0;  // key pairs and certificates together
  std::uint32_t lastKeyPairId = 0;
  std::uint32_t lastCertificateId = 0;
  PasswordLock user;
  PasswordLock securityOfficer;
  std::vector<TavrinKeyPair> keyPairs;
  std::vector<Bytes> privateKeys;
  std::vector<TavrinCertificate> certificates;

  const PasswordLock& lockOf(Role role) const { return role == Role::user ? user : securityOfficer; }
  std::size_t objectCount() const { return keyPairs.size() + certificates.size(); }
};

// Password tries left. They have a file of their own, since every try is written down before it is made.
struct Tries {
  std::uint32_t user = mostTries;
  std::uint32_t securityOfficer = mostTries;

  std::uint32_t& of(Role role) { return role == Role::user ? user : securityOfficer; }
};

Bytes encodeTokenState(const TokenState& state);
Bytes encodeTries(const Tries& tries);

// Throw deviceFault for anything but a whole, undamaged file.
TokenState decodeTokenState(ByteView file);
Tries decodeTries(ByteView file);

}  // namespace softtoken
