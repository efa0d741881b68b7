#include "softtoken/crypto_library.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace softtoken {
namespace {

// libgcrypt copies keys into expressions and frees the copies without wiping them, so freeing has to wipe. The blocks
// come from malloc(), because an application that shares libgcrypt may pass them to free().
void* allocate(std::size_t size) { return std::malloc(size > 0 ? size : 1); }

void release(void* block) {
  if (!block) return;
  wipe(block, blockSize(block));
  std::free(block);
}

void* reallocate(void* old, std::size_t size) {
  if (!old) return allocate(size);
  void* block = allocate(size);
  if (!block) return nullptr;
  const std::size_t kept = blockSize(old);
  std::memcpy(block, old, kept < size ? kept : size);
  release(old);
  return block;
}

int isInSecurePool(const void*) { return 0; }

// libgcrypt would write to the standard error, which belongs to the application.
void keepQuiet(void*, int, const char*, std::va_list) {}

bool initialise() {
  // If the application uses libgcrypt too, it has already set the allocation functions, which must not change any more.
  const bool first = gcry_control(GCRYCTL_ANY_INITIALIZATION_P) == 0;
  if (first) {
    gcry_set_allocation_handler(allocate, allocate, isInSecurePool, reallocate, release);
    gcry_set_log_handler(keepQuiet, nullptr);
  }
  if (!gcry_check_version("1.9.0")) throw Failure(Status::deviceFault, "libgcrypt is older than 1.9.0");
  if (first) gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
  return true;
}

using Cipher = std::unique_ptr<gcry_cipher_handle, ReleaseWith<gcry_cipher_close>>;

Cipher aes256Gcm(ByteView key, ByteView nonce, ByteView context) {
  readyCryptoLibrary();
  gcry_cipher_hd_t handle = nullptr;
  check(gcry_cipher_open(&handle, GCRY_CIPHER_AES256, GCRY_CIPHER_MODE_GCM, 0), "opening AES-256-GCM");
  Cipher cipher(handle);
  check(gcry_cipher_setkey(handle, key.data(), key.size()), "setting a key");
  check(gcry_cipher_setiv(handle, nonce.data(), nonce.size()), "setting a nonce");
  check(gcry_cipher_authenticate(handle, context.data(), context.size()), "authenticating");
  return cipher;
}

}  // namespace

void readyCryptoLibrary() {
  static const bool ready = initialise();
  static_cast<void>(ready);
}

void check(gcry_error_t error, const char* action) {
  if (!error) return;
  const auto code = gcry_err_code(error);
  if (code == GPG_ERR_ENOMEM) throw std::bad_alloc();
  throw Failure(Status::deviceFault, std::string(action) + ": " + gcry_strerror(error));
}

SecretBytes randomSecret(std::size_t count) {
  SecretBytes result(count);
  fillRandom(result);
  return result;
}

Bytes randomBytes(std::size_t count) {
  Bytes result(count);
  fillRandom(result);
  return result;
}

Bytes hashOf(int algorithm, ByteView data) {
  readyCryptoLibrary();
  Bytes digest(gcry_md_get_algo_dlen(algorithm));
  gcry_md_hash_buffer(algorithm, digest.data(), data.data(), data.size());
  return digest;
}

Digest256 hmacSha256(ByteView key, std::initializer_list<ByteView> parts) {
  readyCryptoLibrary();
  std::vector<gcry_buffer_t> buffers;
  const auto append = [&](ByteView part) {
    buffers.push_back({part.size(), 0, part.size(), const_cast<std::uint8_t*>(part.data())});
  };
  append(key);
  for (const ByteView part : parts) append(part);
  Digest256 digest{};
  check(gcry_md_hash_buffers(GCRY_MD_SHA256, GCRY_MD_FLAG_HMAC, digest.data(), buffers.data(),
                             static_cast<int>(buffers.size())),
        "computing an HMAC");
  return digest;
}

Bytes seal(ByteView key, ByteView content, ByteView context) {
  Bytes sealed(nonceSize + content.size() + tagSize);
  const std::span all(sealed);
  fillRandom(all.first(nonceSize));
  const Cipher cipher = aes256Gcm(key, all.first(nonceSize), context);
  const auto body = all.subspan(nonceSize, content.size());
  check(gcry_cipher_encrypt(cipher.get(), body.data(), body.size(), content.data(), content.size()), "encrypting");
  check(gcry_cipher_gettag(cipher.get(), all.last(tagSize).data(), tagSize), "encrypting");
  return sealed;
}

std::optional<SecretBytes> unseal(ByteView key, ByteView sealed, ByteView context) {
  if (sealed.size() < nonceSize + tagSize) return std::nullopt;
  const Cipher cipher = aes256Gcm(key, sealed.first(nonceSize), context);
  const ByteView body = sealed.subspan(nonceSize, sealed.size() - nonceSize - tagSize);
  SecretBytes content(body.size());
  check(gcry_cipher_decrypt(cipher.get(), content.data(), content.size(), body.data(), body.size()), "decrypting");
  if (gcry_cipher_checktag(cipher.get(), sealed.last(tagSize).data(), tagSize)) return std::nullopt;
  return content;
}

SecretBytes scrypt(ByteView password, ByteView salt, const ScryptCost& cost) {
  readyCryptoLibrary();
  SecretBytes key(secretKeySize);
  check(gcry_kdf_derive(password.data(), password.size(), GCRY_KDF_SCRYPT, static_cast<int>(cost.cost), salt.data(),
                        salt.size(), cost.parallelism, key.size(), key.data()),
        "deriving a key");
  return key;
}

Mpi mpiOf(ByteView bigEndian) {
  readyCryptoLibrary();
  gcry_mpi_t number = nullptr;
  check(gcry_mpi_scan(&number, GCRYMPI_FMT_USG, bigEndian.data(), bigEndian.size(), nullptr), "reading a number");
  return Mpi(number);
}

Mpi secretMpiOf(ByteView bigEndian) {
  Mpi number = mpiOf(bigEndian);
  // libgcrypt ends the process when a zero, which has no memory, is to become a secret one.
  if (gcry_mpi_cmp_ui(number.get(), 0) == 0) return newSecretMpi();
  gcry_mpi_set_flag(number.get(), GCRYMPI_FLAG_SECURE);
  return number;
}

Mpi newSecretMpi() {
  readyCryptoLibrary();
  return Mpi(gcry_mpi_snew(0));
}

template <class Container>
Container fixedLength(gcry_mpi_t number, std::size_t length) {
  const std::size_t needed = (gcry_mpi_get_nbits(number) + 7) / 8;
  if (needed > length) throw Failure(Status::deviceFault, "a number is longer than its field");
  Container result(length);
  std::size_t written = 0;
  if (needed > 0) {
    check(gcry_mpi_print(GCRYMPI_FMT_USG, result.data() + (length - needed), needed, &written, number),
          "writing a number");
  }
  return result;
}

template Bytes fixedLength<Bytes>(gcry_mpi_t, std::size_t);
template SecretBytes fixedLength<SecretBytes>(gcry_mpi_t, std::size_t);

Mpi numberIn(gcry_sexp_t expression, const char* name) {
  const Sexp found(gcry_sexp_find_token(expression, name, 0));
  Mpi number(found ? gcry_sexp_nth_mpi(found.get(), 1, GCRYMPI_FMT_USG) : nullptr);
  if (!number) throw Failure(Status::deviceFault, std::string("no number ") + name + " in libgcrypt's answer");
  return number;
}

}  // namespace softtoken
