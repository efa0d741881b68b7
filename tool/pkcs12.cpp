#include "tool/pkcs12.h"

#include <algorithm>
#include <array>

#include "softtoken/crypto_library.h"
#include "tool/der_fields.h"

namespace tool {
namespace {

using softtoken::Bytes;
using softtoken::ByteView;
using softtoken::Failure;
using softtoken::SecretBytes;
using softtoken::Status;

constexpr int maxIterations = 10'000'000;

// Contents of object identifiers.
constexpr std::uint8_t data[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x01};
constexpr std::uint8_t encryptedData[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x06};
constexpr std::uint8_t keyBag[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x0C, 0x0A, 0x01, 0x01};
constexpr std::uint8_t shroudedKeyBag[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x0C, 0x0A, 0x01, 0x02};
constexpr std::uint8_t certificateBag[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x0C, 0x0A, 0x01, 0x03};
constexpr std::uint8_t pbes2[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x05, 0x0D};
constexpr std::uint8_t pbkdf2[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x05, 0x0C};
constexpr std::uint8_t pbeTripleDes[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x0C, 0x01, 0x03};
constexpr std::uint8_t pbeRc2[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x0C, 0x01, 0x06};
constexpr std::uint8_t aes128[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x01, 0x02};
constexpr std::uint8_t aes192[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x01, 0x16};
constexpr std::uint8_t aes256[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x01, 0x2A};
constexpr std::uint8_t tripleDes[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x03, 0x07};
constexpr std::uint8_t hmacSha1[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x07};
constexpr std::uint8_t hmacSha256[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x09};
constexpr std::uint8_t hmacSha384[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x0A};
constexpr std::uint8_t hmacSha512[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x0B};
constexpr std::uint8_t sha1[] = {0x2B, 0x0E, 0x03, 0x02, 0x1A};
constexpr std::uint8_t sha256[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01};
constexpr std::uint8_t sha384[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02};
constexpr std::uint8_t sha512[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03};

struct Algorithm {
  ByteView identifier;
  int code;  // libgcrypt's
};

const Algorithm ciphers[] = {{aes128, GCRY_CIPHER_AES128},     {aes192, GCRY_CIPHER_AES192},
                             {aes256, GCRY_CIPHER_AES256},     {tripleDes, GCRY_CIPHER_3DES},
                             {pbeTripleDes, GCRY_CIPHER_3DES}, {pbeRc2, GCRY_CIPHER_RFC2268_40}};
const Algorithm hashes[] = {{hmacSha1, GCRY_MD_SHA1},     {sha1, GCRY_MD_SHA1},         {hmacSha256, GCRY_MD_SHA256},
                            {sha256, GCRY_MD_SHA256},     {hmacSha384, GCRY_MD_SHA384}, {sha384, GCRY_MD_SHA384},
                            {hmacSha512, GCRY_MD_SHA512}, {sha512, GCRY_MD_SHA512}};

bool is(ByteView identifier, ByteView expected) { return std::ranges::equal(identifier, expected); }

template <std::size_t size>
int codeOf(const Algorithm (&rows)[size], ByteView identifier) {
  for (const Algorithm& row : rows)
    if (is(identifier, row.identifier)) return row.code;
  throw Failure(Status::badArgument, "the file is protected by an algorithm that this program does not know");
}

int iterationsIn(DerFields& fields) {
  const int count = fields.smallNumber();
  if (count < 1 || count > maxIterations)
    throw Failure(Status::badArgument, "the file's password protection has an iteration count out of range");
  return count;
}

// PKCS#12 uses the password as big-endian UTF-16 with a terminating zero.
SecretBytes wide(const SecretBytes& password) {
  SecretBytes result;
  result.reserve(4 * password.size() + 2);
  const auto put = [&](std::uint32_t unit) {
    result.push_back(static_cast<std::uint8_t>(unit >> 8));
    result.push_back(static_cast<std::uint8_t>(unit));
  };
  for (std::size_t at = 0; at < password.size();) {
    const std::uint8_t lead = password[at++];
    const int tail = lead < 0xC0 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    std::uint32_t character = tail == 0 ? lead : lead & (0x3FU >> tail);
    for (int i = 0; i < tail && at < password.size(); ++i) character = character << 6 | (password[at++] & 0x3FU);
    if (character >= 0x10000) {
      character -= 0x10000;
      put(0xD800 | character >> 10);
      character = 0xDC00 | (character & 0x3FF);
    }
    put(character);
  }
  put(0);
  return result;
}

// Repeats the bytes up to the next multiple of the block's length.
SecretBytes repeated(ByteView bytes, std::size_t block) {
  SecretBytes result((bytes.size() + block - 1) / block * block);
  for (std::size_t i = 0; i < result.size(); ++i) result[i] = bytes[i % bytes.size()];
  return result;
}

// Adds B + 1 to each block of I, as numbers (RFC 7292, appendix B.2, step 6C).
void advance(SecretBytes& blocks, const SecretBytes& addend) {
  for (std::size_t start = 0; start < blocks.size(); start += addend.size()) {
    unsigned carry = 1;
    for (std::size_t i = addend.size(); i-- > 0;) {
      carry += unsigned{blocks[start + i]} + addend[i];
      blocks[start + i] = static_cast<std::uint8_t>(carry);
      carry >>= 8;
    }
  }
}

enum class Purpose : std::uint8_t { key = 1, iv = 2, mac = 3 };

// The key derivation of RFC 7292, appendix B.2.
SecretBytes pkcs12Key(Purpose purpose, int hash, const SecretBytes& password, ByteView salt, int iterations,
                      std::size_t length) {
  const std::size_t block = hash == GCRY_MD_SHA384 || hash == GCRY_MD_SHA512 ? 128 : 64;
  const std::size_t digest = gcry_md_get_algo_dlen(hash);
  const SecretBytes diversifier(block, static_cast<std::uint8_t>(purpose));
  SecretBytes blocks = salt.empty() ? SecretBytes() : repeated(salt, block);
  const SecretBytes words = repeated(wide(password), block);
  blocks.insert(blocks.end(), words.begin(), words.end());
  SecretBytes result;
  while (result.size() < length) {
    SecretBytes input = diversifier;
    input.insert(input.end(), blocks.begin(), blocks.end());
    SecretBytes output(digest);
    gcry_md_hash_buffer(hash, output.data(), input.data(), input.size());
    for (int i = 1; i < iterations; ++i) {
      const SecretBytes before = output;
      gcry_md_hash_buffer(hash, output.data(), before.data(), before.size());
    }
    result.insert(result.end(), output.begin(), output.end());
    SecretBytes addend = repeated(output, block);
    addend.resize(block);
    advance(blocks, addend);
  }
  result.resize(length);
  return result;
}

SecretBytes decrypt(int cipher, const SecretBytes& key, ByteView iv, ByteView ciphertext) {
  gcry_cipher_hd_t made = nullptr;
  softtoken::check(gcry_cipher_open(&made, cipher, GCRY_CIPHER_MODE_CBC, 0), "opening a cipher");
  const std::unique_ptr<gcry_cipher_handle, softtoken::ReleaseWith<gcry_cipher_close>> handle(made);
  const std::size_t block = gcry_cipher_get_algo_blklen(cipher);
  const Failure refused(Status::wrongPassword, "the file's password is wrong, or the file is damaged");
  if (iv.size() != block || ciphertext.empty() || ciphertext.size() % block != 0) throw refused;
  softtoken::check(gcry_cipher_setkey(made, key.data(), key.size()), "setting a key");
  softtoken::check(gcry_cipher_setiv(made, iv.data(), iv.size()), "setting a vector");
  SecretBytes plain(ciphertext.size());
  softtoken::check(gcry_cipher_decrypt(made, plain.data(), plain.size(), ciphertext.data(), ciphertext.size()),
                   "decrypting");
  const std::size_t padding = plain.back();
  if (padding == 0 || padding > block ||
      !std::all_of(plain.end() - static_cast<std::ptrdiff_t>(padding), plain.end(),
                   [&](std::uint8_t byte) { return byte == padding; }))
    throw refused;
  plain.resize(plain.size() - padding);
  return plain;
}

SecretBytes decryptPbes2(DerFields parameters, ByteView ciphertext, const SecretBytes& password) {
  DerFields derivation = parameters.inside(softtoken::tag::sequence);
  if (!is(derivation.take(tag::objectIdentifier).content, pbkdf2))
    throw Failure(Status::badArgument, "the file's key is derived by an algorithm that this program does not know");
  DerFields fields = derivation.inside(softtoken::tag::sequence);
  const ByteView salt = fields.take(softtoken::tag::octetString).content;
  const int iterations = iterationsIn(fields);
  if (fields.nextIs(softtoken::tag::integer)) fields.number();
  int hash = GCRY_MD_SHA1;
  if (!fields.empty())
    hash = codeOf(hashes, fields.inside(softtoken::tag::sequence).take(tag::objectIdentifier).content);
  DerFields scheme = parameters.inside(softtoken::tag::sequence);
  const int cipher = codeOf(ciphers, scheme.take(tag::objectIdentifier).content);
  const ByteView iv = scheme.take(softtoken::tag::octetString).content;
  SecretBytes key(gcry_cipher_get_algo_keylen(cipher));
  softtoken::check(gcry_kdf_derive(password.data(), password.size(), GCRY_KDF_PBKDF2, hash, salt.data(), salt.size(),
                                   static_cast<unsigned long>(iterations), key.size(), key.data()),
                   "deriving a key");
  return decrypt(cipher, key, iv, ciphertext);
}

void readBags(ByteView content, const SecretBytes& password, KeyFile& result) {
  for (DerFields bags = DerFields(content).inside(softtoken::tag::sequence); !bags.empty();) {
    DerFields bag = bags.inside(softtoken::tag::sequence);
    const ByteView type = bag.take(tag::objectIdentifier).content;
    const ByteView value = bag.take(softtoken::tag::explicitZero).content;
    if (is(type, certificateBag)) {
      DerFields certificate = DerFields(value).inside(softtoken::tag::sequence);
      certificate.take(tag::objectIdentifier);
      const ByteView der = certificate.inside(softtoken::tag::explicitZero).take(softtoken::tag::octetString).content;
      result.certificates.emplace_back(der.begin(), der.end());
    } else if (is(type, keyBag) && !result.key) {
      result.key = privateKeyIn(value);
    } else if (is(type, shroudedKeyBag) && !result.key) {
      result.key = encryptedPrivateKeyIn(value, password);
    }
  }
}

void requireMac(DerFields mac, ByteView content, const SecretBytes& password) {
  DerFields digest = mac.inside(softtoken::tag::sequence);
  const int hash = codeOf(hashes, digest.inside(softtoken::tag::sequence).take(tag::objectIdentifier).content);
  const ByteView expected = digest.take(softtoken::tag::octetString).content;
  const ByteView salt = mac.take(softtoken::tag::octetString).content;
  const int iterations = mac.empty() ? 1 : iterationsIn(mac);
  const SecretBytes key = pkcs12Key(Purpose::mac, hash, password, salt, iterations, gcry_md_get_algo_dlen(hash));
  gcry_md_hd_t made = nullptr;
  softtoken::check(gcry_md_open(&made, hash, GCRY_MD_FLAG_HMAC), "opening a hash");
  const std::unique_ptr<gcry_md_handle, softtoken::ReleaseWith<gcry_md_close>> handle(made);
  softtoken::check(gcry_md_setkey(made, key.data(), key.size()), "setting a key");
  gcry_md_write(made, content.data(), content.size());
  if (!softtoken::equalInConstantTime({gcry_md_read(made, hash), gcry_md_get_algo_dlen(hash)}, expected))
    throw Failure(Status::wrongPassword, "the file's password is wrong, or the file is damaged");
}

}  // namespace

SecretBytes decryptByPassword(ByteView algorithm, ByteView ciphertext, const SecretBytes& password) {
  softtoken::readyCryptoLibrary();
  DerFields fields(algorithm);
  const ByteView identifier = fields.take(tag::objectIdentifier).content;
  DerFields parameters = fields.inside(softtoken::tag::sequence);
  if (is(identifier, pbes2)) return decryptPbes2(parameters, ciphertext, password);
  const int cipher = codeOf(ciphers, identifier);
  const ByteView salt = parameters.take(softtoken::tag::octetString).content;
  const int iterations = iterationsIn(parameters);
  const auto derive = [&](Purpose purpose, std::size_t length) {
    return pkcs12Key(purpose, GCRY_MD_SHA1, password, salt, iterations, length);
  };
  return decrypt(cipher, derive(Purpose::key, gcry_cipher_get_algo_keylen(cipher)),
                 derive(Purpose::iv, gcry_cipher_get_algo_blklen(cipher)), ciphertext);
}

KeyFile readPkcs12(ByteView file, const SecretBytes& password) {
  softtoken::readyCryptoLibrary();
  DerFields pfx = DerFields(file).inside(softtoken::tag::sequence);
  pfx.number();
  DerFields safe = pfx.inside(softtoken::tag::sequence);
  if (!is(safe.take(tag::objectIdentifier).content, data))
    throw Failure(Status::badArgument, "the file is protected by a public key, not by a password");
  const ByteView content = safe.inside(softtoken::tag::explicitZero).take(softtoken::tag::octetString).content;
  if (pfx.empty()) throw Failure(Status::badArgument, "the file has no MAC, so its password cannot be checked");
  requireMac(pfx.inside(softtoken::tag::sequence), content, password);
  KeyFile result;
  for (DerFields parts = DerFields(content).inside(softtoken::tag::sequence); !parts.empty();) {
    DerFields part = parts.inside(softtoken::tag::sequence);
    const ByteView type = part.take(tag::objectIdentifier).content;
    DerFields value = part.inside(softtoken::tag::explicitZero);
    if (is(type, data)) {
      readBags(value.take(softtoken::tag::octetString).content, password, result);
    } else if (is(type, encryptedData)) {
      DerFields encrypted = value.inside(softtoken::tag::sequence);
      encrypted.number();
      DerFields info = encrypted.inside(softtoken::tag::sequence);
      info.take(tag::objectIdentifier);
      const ByteView algorithm = info.take(softtoken::tag::sequence).content;
      const SecretBytes bags = decryptByPassword(algorithm, info.take(tag::implicitZero).content, password);
      readBags(bags, password, result);
    }
  }
  return result;
}

}  // namespace tool
