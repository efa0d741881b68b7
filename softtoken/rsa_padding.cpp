#include "softtoken/rsa_padding.h"

#include <algorithm>

#include "softtoken/crypto_library.h"

namespace softtoken {
namespace {

constexpr std::size_t minPadding = 8;
constexpr std::size_t sha1Size = 20;

// All ones when the value (below 2^31) is zero, else all zeros. Without a branch, because the value is secret.
std::uint32_t maskIfZero(std::uint32_t value) { return static_cast<std::uint32_t>(-((~value & (value - 1)) >> 31)); }

struct Message {
  std::uint32_t valid;  // a mask
  std::uint32_t start;  // offset in the block
};

// XORs what MGF1 with SHA-1 makes of `seed` into `target`.
void applyMask(ByteView seed, std::span<std::uint8_t> target) {
  SecretBytes input(seed.begin(), seed.end());
  input.resize(seed.size() + 4);
  for (std::size_t counter = 0; !target.empty(); ++counter) {
    input[input.size() - 2] = static_cast<std::uint8_t>(counter >> 8);
    input[input.size() - 1] = static_cast<std::uint8_t>(counter);
    SecretBytes mask(sha1Size);
    gcry_md_hash_buffer(GCRY_MD_SHA1, mask.data(), input.data(), input.size());
    const std::size_t count = std::min(sha1Size, target.size());
    for (std::size_t i = 0; i < count; ++i) target[i] ^= mask[i];
    target = target.subspan(count);
  }
}

// 00 02, at least eight bytes that are not zero, 00, message.
Message findPkcs1Message(ByteView block) {
  std::uint32_t separator = 0;
  std::uint32_t found = 0;
  for (std::size_t i = 2; i < block.size(); ++i) {
    const std::uint32_t first = maskIfZero(block[i]) & ~found;
    separator |= static_cast<std::uint32_t>(i) & first;
    found |= first;
  }
  const auto shortest = static_cast<std::uint32_t>(2 + minPadding);
  const std::uint32_t tooShort = static_cast<std::uint32_t>(-((separator - shortest) >> 31));
  const std::uint32_t begins = maskIfZero(block[0]) & maskIfZero(block[1] ^ 2u);
  return {begins & found & ~tooShort, separator + 1};
}

// 00, masked seed, masked (hash of the label, zeros, 01, message). Unmasks the block in place.
Message findOaepMessage(std::span<std::uint8_t> block) {
  const std::span seed = block.subspan(1, sha1Size);
  const std::span data = block.subspan(1 + sha1Size);
  applyMask(data, seed);
  applyMask(seed, data);

  const Bytes labelHash = hashOf(GCRY_MD_SHA1, {});
  std::uint32_t wrong = block[0];
  for (std::size_t i = 0; i < sha1Size; ++i) wrong |= static_cast<std::uint32_t>(data[i] ^ labelHash[i]);
  std::uint32_t separator = 0;
  std::uint32_t found = 0;
  for (std::size_t i = sha1Size; i < data.size(); ++i) {
    const std::uint32_t first = ~maskIfZero(data[i]) & ~found;
    wrong |= (data[i] ^ 1u) & first;
    separator |= static_cast<std::uint32_t>(i) & first;
    found |= first;
  }
  return {maskIfZero(wrong) & found, static_cast<std::uint32_t>(1 + sha1Size) + separator + 1};
}

}  // namespace

std::optional<Bytes> padForSignature(ByteView input, std::size_t length) {
  if (input.size() + minPadding + 3 > length) return std::nullopt;
  Bytes block(length, 0xFF);
  block[0] = 0;
  block[1] = 1;
  const auto separator = block.end() - static_cast<std::ptrdiff_t>(input.size()) - 1;
  *separator = 0;
  std::ranges::copy(input, separator + 1);
  return block;
}

std::optional<SecretBytes> removeEncryptionPadding(ByteView block) {
  if (block.size() < 2 * sha1Size + 2) return std::nullopt;
  const Message pkcs1 = findPkcs1Message(block);
  SecretBytes unmasked(block.begin(), block.end());
  const Message oaep = findOaepMessage(unmasked);
  // An OAEP block may look like PKCS#1 v1.5 by chance. The opposite would need a matching hash.
  if (oaep.valid) return SecretBytes(unmasked.begin() + oaep.start, unmasked.end());
  if (pkcs1.valid) return SecretBytes(block.begin() + pkcs1.start, block.end());
  return std::nullopt;
}

}  // namespace softtoken
