#include "softtoken/rsa.h"

#include <algorithm>

#include "devlib/device_constants.h"
#include "softtoken/rsa_padding.h"

namespace softtoken {
namespace {

constexpr std::size_t smallestModulus = tavrin::rsaKeySizes.smallest / 8;
constexpr std::size_t largestModulus = tavrin::rsaKeySizes.largest / 8;
// No standard allows longer ones, and the time that an operation takes grows with the exponent.
constexpr std::size_t largestExponent = 256 / 8;

const char* hashNameForLength(std::size_t length) {
  switch (length) {
    case 20:
      return "sha1";
    case 32:
      return "sha256";
    case 48:
      return "sha384";
    case 64:
      return "sha512";
    default:
      return nullptr;
  }
}

// The input as libgcrypt's sign and verify take it.
Sexp signatureInput(ByteView input, bool pss, std::size_t modulusLength) {
  const auto length = static_cast<int>(input.size());
  const char* hash = hashNameForLength(input.size());
  if (hash && pss) {
    require(modulusLength >= 2 * input.size() + 2, "the key is too short for PSS with this hash");
    return makeSexp("(data(flags pss)(hash %s %b)(salt-length %d))", hash, length, input.data(), length);
  }
  if (hash) return makeSexp("(data(flags pkcs1)(hash %s %b))", hash, length, input.data());
  require(!pss, "PSS takes a digest");
  const std::optional<Bytes> block = padForSignature(input, modulusLength);
  require(block.has_value(), "the input is too long for the key");
  const Mpi number = mpiOf(*block);
  return makeSexp("(data(flags raw)(value %m))", number.get());
}

Sexp publicExpression(ByteView modulus, ByteView exponent) {
  const Mpi n = mpiOf(modulus);
  const Mpi e = mpiOf(exponent);
  return makeSexp("(public-key(rsa(n %m)(e %m)))", n.get(), e.get());
}

bool isOdd(ByteView number) { return !number.empty() && (number.back() & 1) != 0; }

Sexp publicExpression(const RsaPublicKey& key) {
  const bool exponentFits =
      isOdd(key.exponent) && key.exponent.size() <= largestExponent && (key.exponent.size() > 1 || key.exponent[0] > 1);
  require(key.modulus.size() >= smallestModulus && key.modulus.size() <= largestModulus && isOdd(key.modulus) &&
              exponentFits,
          "no RSA public key");
  return publicExpression(key.modulus, key.exponent);
}

Sexp privateExpression(const RsaPrivateKey& key) {
  // libgcrypt ends the process when a prime is zero. With a zero exponent or coefficient its results are wrong.
  for (const SecretBytes* part : {&key.exponent, &key.prime1, &key.prime2, &key.coefficient})
    if (withoutLeadingZeros(*part).empty()) throw Failure(Status::deviceFault, "a stored RSA key is damaged");
  const Mpi n = mpiOf(key.modulus);
  const Mpi e = mpiOf(tavrin::rsaPublicExponentBytes);
  const Mpi d = secretMpiOf(key.exponent);
  const Mpi p = secretMpiOf(key.prime1);
  const Mpi q = secretMpiOf(key.prime2);
  const Mpi u = secretMpiOf(key.coefficient);
  return makeSexp("(private-key(rsa(n %m)(e %m)(d %m)(p %m)(q %m)(u %m)))", n.get(), e.get(), d.get(), p.get(), q.get(),
                  u.get());
}

// Whether the product of the two exponents is 1 modulo prime - 1.
bool exponentsFit(gcry_mpi_t privateExponent, gcry_mpi_t prime) {
  const Mpi publicExponent = mpiOf(tavrin::rsaPublicExponentBytes);
  const Mpi product = newSecretMpi();
  const Mpi order = newSecretMpi();
  gcry_mpi_sub_ui(order.get(), prime, 1);
  gcry_mpi_mulm(product.get(), privateExponent, publicExponent.get(), order.get());
  return gcry_mpi_cmp_ui(product.get(), 1) == 0;
}

// A signature uses the CRT numbers, which the checks before did not.
bool signsCorrectly(const RsaPrivateKey& key) {
  const Bytes digest = hashOf(GCRY_MD_SHA256, key.modulus);
  try {
    verifyRsa({key.modulus, rsaPublicExponent()}, digest, signRsa(key, digest, false), false);
    return true;
  } catch (const Failure&) {
    return false;
  }
}

}  // namespace

Bytes rsaPublicExponent() {
  return {std::begin(tavrin::rsaPublicExponentBytes), std::end(tavrin::rsaPublicExponentBytes)};
}

RsaPrivateKey generateRsaKey(std::uint32_t bits) {
  const Sexp parameters = makeSexp("(genkey(rsa(nbits %u)(rsa-use-e %u)))", static_cast<unsigned>(bits),
                                   static_cast<unsigned>(tavrin::rsaPublicExponent));
  gcry_sexp_t generated = nullptr;
  check(gcry_pk_genkey(&generated, parameters.get()), "generating an RSA key");
  const Sexp owner(generated);
  const Sexp key(gcry_sexp_find_token(generated, "private-key", 0));
  return {shortest(numberIn(key.get(), "n").get()), shortest<SecretBytes>(numberIn(key.get(), "d").get()),
          shortest<SecretBytes>(numberIn(key.get(), "p").get()), shortest<SecretBytes>(numberIn(key.get(), "q").get()),
          shortest<SecretBytes>(numberIn(key.get(), "u").get())};
}

RsaPrivateKey completeRsaKey(ByteView modulus, ByteView privateExponent, ByteView prime) {
  const Mpi n = mpiOf(modulus);
  const Mpi d = secretMpiOf(privateExponent);
  Mpi p = secretMpiOf(prime);
  const unsigned bits = gcry_mpi_get_nbits(n.get());
  require(gcry_mpi_get_nbits(p.get()) > 1 && gcry_mpi_test_bit(p.get(), 0) && gcry_mpi_test_bit(n.get(), 0) &&
              gcry_mpi_cmp(d.get(), n.get()) < 0 && gcry_mpi_cmp_ui(d.get(), 1) > 0,
          "the numbers of the RSA key are out of range");

  Mpi q = newSecretMpi();
  const Mpi remainder = newSecretMpi();
  gcry_mpi_div(q.get(), remainder.get(), n.get(), p.get(), -1);
  require(gcry_mpi_cmp_ui(remainder.get(), 0) == 0, "the prime does not divide the modulus");
  if (gcry_mpi_cmp(p.get(), q.get()) > 0) std::swap(p, q);
  // No key generator makes primes of such unequal lengths, and the CRT would gain little from them.
  require(gcry_mpi_get_nbits(p.get()) >= bits / 4 && gcry_mpi_cmp(p.get(), q.get()) != 0,
          "the primes of the RSA key do not fit");
  require(!gcry_prime_check(p.get(), 0) && !gcry_prime_check(q.get(), 0), "a factor of the modulus is no prime");

  require(exponentsFit(d.get(), p.get()) && exponentsFit(d.get(), q.get()),
          "the private exponent does not belong to the primes and the public exponent 65537");

  const Mpi u = newSecretMpi();
  gcry_mpi_invm(u.get(), p.get(), q.get());
  RsaPrivateKey key{shortest(n.get()), shortest<SecretBytes>(d.get()), shortest<SecretBytes>(p.get()),
                    shortest<SecretBytes>(q.get()), shortest<SecretBytes>(u.get())};
  require(signsCorrectly(key), "the RSA key does not sign correctly");
  return key;
}

Bytes signRsa(const RsaPrivateKey& key, ByteView input, bool pss) {
  const Sexp data = signatureInput(input, pss, key.modulus.size());
  const Sexp privateKey = privateExpression(key);
  gcry_sexp_t signature = nullptr;
  check(gcry_pk_sign(&signature, data.get(), privateKey.get()), "signing");
  const Sexp owner(signature);
  return fixedLength(numberIn(signature, "s").get(), key.modulus.size());
}

void verifyRsa(const RsaPublicKey& key, ByteView input, ByteView signature, bool pss) {
  const Sexp publicKey = publicExpression(key);
  const Sexp data = signatureInput(input, pss, key.modulus.size());
  if (signature.size() != key.modulus.size()) throw Failure(Status::badSignature, "the signature has a wrong length");
  const Mpi number = mpiOf(signature);
  const Mpi modulus = mpiOf(key.modulus);
  const Sexp expression = makeSexp("(sig-val(rsa(s %m)))", number.get());
  if (gcry_mpi_cmp(number.get(), modulus.get()) >= 0 || gcry_pk_verify(expression.get(), data.get(), publicKey.get()))
    throw Failure(Status::badSignature, "the signature is not valid");
}

Bytes encryptRsa(const RsaPublicKey& key, ByteView message, bool oaep) {
  const Sexp publicKey = publicExpression(key);
  const std::size_t overhead = oaep ? 42 : 11;
  require(!message.empty() && message.size() + overhead <= key.modulus.size(), "the message does not fit the key");
  const auto length = static_cast<int>(message.size());
  const Sexp data = makeSexp(oaep ? "(data(flags oaep)(hash-algo sha1)(value %b))" : "(data(flags pkcs1)(value %b))",
                             length, message.data());
  gcry_sexp_t ciphertext = nullptr;
  check(gcry_pk_encrypt(&ciphertext, data.get(), publicKey.get()), "encrypting");
  const Sexp owner(ciphertext);
  return fixedLength(numberIn(ciphertext, "a").get(), key.modulus.size());
}

SecretBytes decryptRsa(const RsaPrivateKey& key, ByteView ciphertext) {
  require(ciphertext.size() == key.modulus.size(), "the ciphertext does not fit the key");
  const Mpi number = mpiOf(ciphertext);
  const Mpi modulus = mpiOf(key.modulus);
  // Zero and one decrypt to themselves; no padded message encrypts to them.
  require(gcry_mpi_cmp(number.get(), modulus.get()) < 0 && gcry_mpi_cmp_ui(number.get(), 1) > 0,
          "the ciphertext does not fit the key");
  const Sexp privateKey = privateExpression(key);
  // Decrypted once, without padding: the time of a second attempt would reveal that the first padding did not fit.
  const Sexp data = makeSexp("(enc-val(flags raw)(rsa(a %m)))", number.get());
  gcry_sexp_t plain = nullptr;
  check(gcry_pk_decrypt(&plain, data.get(), privateKey.get()), "decrypting");
  const Sexp owner(plain);
  const auto block = fixedLength<SecretBytes>(numberIn(plain, "value").get(), key.modulus.size());
  std::optional<SecretBytes> message = removeEncryptionPadding(block);
  if (!message) throw Failure(Status::badCiphertext, "the ciphertext has no padding that is known");
  return std::move(*message);
}

}  // namespace softtoken
