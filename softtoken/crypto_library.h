// A wrapper of libgcrypt: owned handles, errors as Failure, secrets in memory that is wiped. Any thread may call the
// functions.
#pragma once

#include <gcrypt.h>

#include <array>
#include <memory>
#include <optional>

#include "softtoken/bytes.h"
#include "softtoken/failure.h"

namespace softtoken {

template <auto release>
struct ReleaseWith {
  template <class Handle>
  void operator()(Handle* handle) const {
    release(handle);
  }
};

using Mpi = std::unique_ptr<gcry_mpi, ReleaseWith<gcry_mpi_release>>;
using Sexp = std::unique_ptr<gcry_sexp, ReleaseWith<gcry_sexp_release>>;

using Digest256 = std::array<std::uint8_t, 32>;

constexpr std::size_t secretKeySize = 32;
constexpr std::size_t saltSize = 16;

// Initialises libgcrypt once for the process. The functions below do so themselves; call it before using libgcrypt
// directly.
void readyCryptoLibrary();

// Throws std::bad_alloc for a lack of memory and Failure with deviceFault for every other error.
void check(gcry_error_t error, const char* action);

// From the system's random number generator. Throw deviceFault if it fails.
Bytes randomBytes(std::size_t count);
SecretBytes randomSecret(std::size_t count);

// Hash of the data. `algorithm` is libgcrypt's (GCRY_MD_...), not a HashCode, and must be one that libgcrypt has.
Bytes hashOf(int algorithm, ByteView data);
// HMAC of the parts, joined in this order. Throws as check() does.
Digest256 hmacSha256(ByteView key, std::initializer_list<ByteView> parts);

// Encrypts with AES-256-GCM under a random nonce. `key` has secretKeySize bytes. `context` is authenticated but is not
// part of the result. Throws as check() does. The result is the nonce, the ciphertext (as long as the content) and the
// tag.
constexpr std::size_t nonceSize = 12;
constexpr std::size_t tagSize = 16;
constexpr std::size_t sealOverhead = nonceSize + tagSize;
Bytes seal(ByteView key, ByteView content, ByteView context);
// Empty when key or context differ from those of seal(), or a byte has changed.
std::optional<SecretBytes> unseal(ByteView key, ByteView sealed, ByteView context);

// What one derivation with scrypt costs: `parallelism` passes in a row, each over `cost` KiB of memory. The cost is a
// power of two.
struct ScryptCost {
  std::uint32_t cost = 1u << 15;
  std::uint32_t parallelism = 1;
  bool operator==(const ScryptCost&) const = default;
};
// A key of secretKeySize bytes. Throws as check() does.
SecretBytes scrypt(ByteView password, ByteView salt, const ScryptCost& cost);

Mpi mpiOf(ByteView bigEndian);
// libgcrypt computes with it in constant time where it can.
Mpi secretMpiOf(ByteView bigEndian);
Mpi newSecretMpi();

// Big-endian and padded with zeros on the left; throws when the number needs more bytes.
template <class Container = Bytes>
Container fixedLength(gcry_mpi_t number, std::size_t length);
// Without leading zeros.
template <class Container = Bytes>
Container shortest(gcry_mpi_t number) {
  return fixedLength<Container>(number, (gcry_mpi_get_nbits(number) + 7) / 8);
}

// gcry_sexp_build: numbers for %m, length and pointer for %b.
template <class... Arguments>
Sexp makeSexp(const char* format, Arguments... arguments) {
  readyCryptoLibrary();
  gcry_sexp_t result = nullptr;
  check(gcry_sexp_build(&result, nullptr, format, arguments...), "building an expression");
  return Sexp(result);
}

// The number with this name in an expression, such as "r" in a signature. Throws deviceFault when there is none.
Mpi numberIn(gcry_sexp_t expression, const char* name);

}  // namespace softtoken
