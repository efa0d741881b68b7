// Calls through the module, compared with the direct calls of the device library that do the same work.
#include <benchmark/benchmark.h>

#include <array>

#include "bench/bench_token.h"
#include "bench/compare.h"
#include "devlib/device_constants.h"
#include "objects/handle_ranges.h"
#include "slots/slot_table.h"

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
  require(C_SignInit(session(), &mechanism, tavrin::privateKeyBase + key.id) == CKR_OK &&
              C_Sign(session(), message.data(), static_cast<CK_ULONG>(message.size()), signature.bytes.data(),
                     &signature.length) == CKR_OK,
          "signing through the module");
}

std::array<std::uint8_t, 64> hashDirectly(int& length) {
  void* context = nullptr;
  std::array<std::uint8_t, 64> digest{};
  length = static_cast<int>(digest.size());
  require(tavrin_initHash(token().serial.c_str(), static_cast<int>(tavrin::HashCode::sha256), &context,
                          token().instance) == 0 &&
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
void sign(State& state) {
  Signature signature;
  compare(
      state, [&] { signThroughModule(token().*key, type, signature); }, [] { signDirectly(token().*key); });
}

void verifyThroughModule(const TavrinKeyPair& key, CK_MECHANISM_TYPE type, Signature& signature) {
  CK_MECHANISM mechanism{type, nullptr, 0};
  require(C_VerifyInit(session(), &mechanism, tavrin::publicKeyBase + key.id) == CKR_OK &&
              C_Verify(session(), message.data(), static_cast<CK_ULONG>(message.size()), signature.bytes.data(),
                       signature.length) == CKR_OK,
          "verifying through the module");
}

void verifyDirectly(const TavrinKeyPair& key, const Signature& signature) {
  int digestLength = 0;
  const auto digest = hashDirectly(digestLength);
  require(tavrin_verifySignatureHash(key.keyType, token().serial.c_str(), digest.data(), digestLength, key.publicKey,
                                     static_cast<int>(key.publicKeyLength), signature.bytes.data(),
                                     static_cast<int>(signature.length), token().instance, false) == 0,
          "verifying directly");
}

template <TavrinKeyPair BenchToken::*key, CK_MECHANISM_TYPE type>
void verify(State& state) {
  Signature signature;
  signThroughModule(token().*key, type, signature);
  compare(
      state, [&] { verifyThroughModule(token().*key, type, signature); },
      [&] { verifyDirectly(token().*key, signature); });
}

void digest(State& state) {
  const auto throughModule = [] {
    CK_MECHANISM mechanism{CKM_SHA256, nullptr, 0};
    std::array<CK_BYTE, 64> result{};
    auto length = static_cast<CK_ULONG>(result.size());
    require(C_DigestInit(session(), &mechanism) == CKR_OK &&
                C_Digest(session(), message.data(), static_cast<CK_ULONG>(message.size()), result.data(), &length) ==
                    CKR_OK,
            "hashing through the module");
  };
  compare(state, throughModule, [] {
    int length = 0;
    benchmark::DoNotOptimize(hashDirectly(length));
  });
}

void randomBytes(State& state) {
  std::array<CK_BYTE, 32> bytes{};
  compare(
      state, [&] { require(C_GenerateRandom(session(), bytes.data(), 32) == CKR_OK, "C_GenerateRandom"); },
      [&] {
        require(tavrin_generateRamdomNumber(token().serial.c_str(), 32, bytes.data(), true, nullptr) == 0,
                "random bytes");
      });
}

// The direct way to search is to copy both lists.
void findById(State& state) {
  CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
  CK_BYTE id = 2;
  CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &objectClass, sizeof objectClass}, {CKA_ID, &id, sizeof id}};
  const auto throughModule = [&] {
    CK_OBJECT_HANDLE found = 0;
    CK_ULONG count = 0;
    require(C_FindObjectsInit(session(), wanted, 2) == CKR_OK &&
                C_FindObjects(session(), &found, 1, &count) == CKR_OK && count == 1 &&
                C_FindObjectsFinal(session()) == CKR_OK,
            "finding a key");
  };
  compare(state, throughModule, [] {
    const auto certificates = tavrin_getCertificateList(token().serial.c_str(), token().instance);
    const auto keyPairs = tavrin_getKeyPairList(token().serial.c_str(), token().instance);
    benchmark::DoNotOptimize(certificates.data());
    benchmark::DoNotOptimize(keyPairs.data());
  });
}

void readModulus(State& state) {
  std::array<CK_BYTE, 512> modulus{};
  const auto throughModule = [&] {
    CK_ATTRIBUTE attribute{CKA_MODULUS, modulus.data(), static_cast<CK_ULONG>(modulus.size())};
    require(C_GetAttributeValue(session(), tavrin::publicKeyBase + token().rsa.id, &attribute, 1) == CKR_OK,
            "reading a modulus");
  };
  compare(state, throughModule, [] {
    const auto keyPairs = tavrin_getKeyPairList(token().serial.c_str(), token().instance);
    benchmark::DoNotOptimize(keyPairs.data());
  });
}

void tokenInformation(State& state) {
  session();
  CK_TOKEN_INFO info;
  for (auto _ : state) require(C_GetTokenInfo(tavrin::firstSlotId, &info) == CKR_OK, "C_GetTokenInfo");
}

constexpr TavrinKeyPair BenchToken::*rsa = &BenchToken::rsa;
constexpr TavrinKeyPair BenchToken::*p256 = &BenchToken::p256;

BENCHMARK_TEMPLATE(sign, rsa, CKM_SHA256_RSA_PKCS)->Name("sign SHA256-RSA-2048")->MinTime(1);
BENCHMARK_TEMPLATE(sign, p256, CKM_ECDSA_SHA256)->Name("sign SHA256-ECDSA-P256")->MinTime(1);
BENCHMARK_TEMPLATE(verify, rsa, CKM_SHA256_RSA_PKCS)->Name("verify SHA256-RSA-2048");
BENCHMARK_TEMPLATE(verify, p256, CKM_ECDSA_SHA256)->Name("verify SHA256-ECDSA-P256");
BENCHMARK(digest)->Name("digest SHA-256 of 1 KiB");
BENCHMARK(randomBytes)->Name("32 random bytes");
BENCHMARK(findById)->Name("find a key by id");
BENCHMARK(readModulus)->Name("read a modulus");
BENCHMARK(tokenInformation)->Name("token information");

}  // namespace
}  // namespace bench
