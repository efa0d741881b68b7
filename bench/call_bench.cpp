// Each kind of call through the module beside the calls of the device library that do its work.
#include <benchmark/benchmark.h>

#include <array>

#include "bench/bench_token.h"

namespace bench {
namespace {

using benchmark::State;

std::array<CK_BYTE, 1024> message{};

struct Signature {
  std::array<CK_BYTE, 1024> bytes{};
  CK_ULONG length = 0;
};

void signThroughModule(const TavrinKeyPair& key, CK_MECHANISM_TYPE type, Signature& signature) {
  CK_MECHANISM mechanism{type, nullptr, 0};
  signature.length = static_cast<CK_ULONG>(signature.bytes.size());
  require(C_SignInit(session(), &mechanism, 0x70000000 + key.id) == CKR_OK &&
              C_Sign(session(), message.data(), static_cast<CK_ULONG>(message.size()), signature.bytes.data(),
                     &signature.length) == CKR_OK,
          "signing through the module");
}

std::array<std::uint8_t, 64> hashDirectly(int& length) {
  void* context = nullptr;
  std::array<std::uint8_t, 64> digest{};
  length = static_cast<int>(digest.size());
  require(tavrin_initHash(token().serial.c_str(), 3, &context, token().instance) == 0 &&
              tavrin_updateHash(context, message.data(), static_cast<int>(message.size()), token().instance) == 0 &&
              tavrin_finalHash(context, digest.data(), &length, token().instance) == 0,
          "hashing directly");
  return digest;
}

void signDirectly(const TavrinKeyPair& key) {
  int digestLength = 0;
  const auto digest = hashDirectly(digestLength);
  std::array<std::uint8_t, 1024> signature{};
  int length = static_cast<int>(signature.size());
  require(tavrin_signHash(token().serial.c_str(), key.recordId, pin, digest.data(), digestLength, signature.data(),
                          &length, false, token().instance, false) == 0,
          "signing directly");
}

template <TavrinKeyPair BenchToken::*key, CK_MECHANISM_TYPE type>
void signModule(State& state) {
  Signature signature;
  for (auto _ : state) signThroughModule(token().*key, type, signature);
}

template <TavrinKeyPair BenchToken::*key>
void signDirect(State& state) {
  for (auto _ : state) signDirectly(token().*key);
}

template <TavrinKeyPair BenchToken::*key, CK_MECHANISM_TYPE type>
void verifyModule(State& state) {
  Signature signature;
  signThroughModule(token().*key, type, signature);
  CK_MECHANISM mechanism{type, nullptr, 0};
  for (auto _ : state) {
    require(C_VerifyInit(session(), &mechanism, 0x70001000 + (token().*key).id) == CKR_OK &&
                C_Verify(session(), message.data(), static_cast<CK_ULONG>(message.size()), signature.bytes.data(),
                         signature.length) == CKR_OK,
            "verifying through the module");
  }
}

template <TavrinKeyPair BenchToken::*key, CK_MECHANISM_TYPE type>
void verifyDirect(State& state) {
  Signature signature;
  signThroughModule(token().*key, type, signature);
  const TavrinKeyPair& pair = token().*key;
  for (auto _ : state) {
    int digestLength = 0;
    const auto digest = hashDirectly(digestLength);
    require(tavrin_verifySignatureHash(pair.keyType, token().serial.c_str(), digest.data(), digestLength,
                                       pair.publicKey, static_cast<int>(pair.publicKeyLength), signature.bytes.data(),
                                       static_cast<int>(signature.length), token().instance, false) == 0,
            "verifying directly");
  }
}

void digestModule(State& state) {
  CK_MECHANISM mechanism{CKM_SHA256, nullptr, 0};
  std::array<CK_BYTE, 64> digest{};
  for (auto _ : state) {
    auto length = static_cast<CK_ULONG>(digest.size());
    require(C_DigestInit(session(), &mechanism) == CKR_OK &&
                C_Digest(session(), message.data(), static_cast<CK_ULONG>(message.size()), digest.data(), &length) ==
                    CKR_OK,
            "hashing through the module");
  }
}

void digestDirect(State& state) {
  int length = 0;
  for (auto _ : state) benchmark::DoNotOptimize(hashDirectly(length));
}

void randomModule(State& state) {
  std::array<CK_BYTE, 32> bytes{};
  for (auto _ : state) require(C_GenerateRandom(session(), bytes.data(), 32) == CKR_OK, "C_GenerateRandom");
}

void randomDirect(State& state) {
  std::array<std::uint8_t, 32> bytes{};
  for (auto _ : state) {
    require(tavrin_generateRamdomNumber(token().serial.c_str(), 32, bytes.data(), true, nullptr) == 0, "random bytes");
  }
}

void findById(State& state) {
  CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
  CK_BYTE id = 2;
  CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &objectClass, sizeof objectClass}, {CKA_ID, &id, sizeof id}};
  for (auto _ : state) {
    CK_OBJECT_HANDLE found = 0;
    CK_ULONG count = 0;
    require(C_FindObjectsInit(session(), wanted, 2) == CKR_OK &&
                C_FindObjects(session(), &found, 1, &count) == CKR_OK && count == 1 &&
                C_FindObjectsFinal(session()) == CKR_OK,
            "finding a key");
  }
}

// What a search asks of the device: copies of both lists.
void findDirectly(State& state) {
  const char* device = token().serial.c_str();
  session();
  for (auto _ : state) {
    const auto certificates = tavrin_getCertificateList(device, token().instance);
    const auto keyPairs = tavrin_getKeyPairList(device, token().instance);
    benchmark::DoNotOptimize(certificates.data());
    benchmark::DoNotOptimize(keyPairs.data());
  }
}

void listKeysDirectly(State& state) {
  session();
  for (auto _ : state) {
    const auto keyPairs = tavrin_getKeyPairList(token().serial.c_str(), token().instance);
    benchmark::DoNotOptimize(keyPairs.data());
  }
}

void readModulus(State& state) {
  std::array<CK_BYTE, 512> modulus{};
  for (auto _ : state) {
    CK_ATTRIBUTE attribute{CKA_MODULUS, modulus.data(), static_cast<CK_ULONG>(modulus.size())};
    require(C_GetAttributeValue(session(), 0x70001000 + token().rsa.id, &attribute, 1) == CKR_OK, "reading a modulus");
  }
}

void tokenInformation(State& state) {
  session();
  CK_TOKEN_INFO info;
  for (auto _ : state) require(C_GetTokenInfo(0x50000001, &info) == CKR_OK, "C_GetTokenInfo");
}

constexpr TavrinKeyPair BenchToken::*rsa = &BenchToken::rsa;
constexpr TavrinKeyPair BenchToken::*p256 = &BenchToken::p256;

BENCHMARK_TEMPLATE(signModule, rsa, CKM_SHA256_RSA_PKCS)->Name("sign SHA256-RSA-2048:module");
BENCHMARK_TEMPLATE(signDirect, rsa)->Name("sign SHA256-RSA-2048:direct");
BENCHMARK_TEMPLATE(signModule, p256, CKM_ECDSA_SHA256)->Name("sign SHA256-ECDSA-P256:module");
BENCHMARK_TEMPLATE(signDirect, p256)->Name("sign SHA256-ECDSA-P256:direct");
BENCHMARK_TEMPLATE(verifyModule, rsa, CKM_SHA256_RSA_PKCS)->Name("verify SHA256-RSA-2048:module");
BENCHMARK_TEMPLATE(verifyDirect, rsa, CKM_SHA256_RSA_PKCS)->Name("verify SHA256-RSA-2048:direct");
BENCHMARK_TEMPLATE(verifyModule, p256, CKM_ECDSA_SHA256)->Name("verify SHA256-ECDSA-P256:module");
BENCHMARK_TEMPLATE(verifyDirect, p256, CKM_ECDSA_SHA256)->Name("verify SHA256-ECDSA-P256:direct");
BENCHMARK(digestModule)->Name("digest SHA-256 of 1 KiB:module");
BENCHMARK(digestDirect)->Name("digest SHA-256 of 1 KiB:direct");
BENCHMARK(randomModule)->Name("32 random bytes:module");
BENCHMARK(randomDirect)->Name("32 random bytes:direct");
BENCHMARK(findById)->Name("find a key by id:module");
BENCHMARK(findDirectly)->Name("find a key by id:direct");
BENCHMARK(readModulus)->Name("read a modulus:module");
BENCHMARK(listKeysDirectly)->Name("read a modulus:direct");
BENCHMARK(tokenInformation)->Name("token information:module");

}  // namespace
}  // namespace bench
