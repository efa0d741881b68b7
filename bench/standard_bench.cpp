// Calls through the standard module, compared with the same calls of the module. Each has a module of its own.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <array>
#include <atomic>
#include <barrier>
#include <filesystem>
#include <thread>
#include <vector>

#include "bench/bench_token.h"
#include "bench/compare.h"

namespace bench {
namespace {

using benchmark::State;
namespace fs = std::filesystem;

// One session, logged in, of a Cryptoki library.
struct Client {
  CK_FUNCTION_LIST_PTR f = nullptr;
  CK_SESSION_HANDLE session = 0;

  void start() {
    CK_SLOT_ID slots[4];
    CK_ULONG count = 4;
    require(f->C_Initialize(nullptr) == CKR_OK && f->C_GetSlotList(CK_TRUE, slots, &count) == CKR_OK && count == 1 &&
                f->C_OpenSession(slots[0], CKF_SERIAL_SESSION, nullptr, nullptr, &session) == CKR_OK &&
                login(f->C_Login, session) == CKR_OK,
            "starting the standard module");
  }
};

// The standard module. It is loaded from a folder of its own, as the program is linked to the module.
Client& standard() {
  static Client client = [] {
    token();
    const fs::path folder = surroundings().folder() / "standard";
    fs::create_directory(folder);
    for (const fs::path library : {MODULE_FILE, STANDARD_FILE}) fs::copy(library, folder / library.filename());
    void* file = dlopen((folder / fs::path(STANDARD_FILE).filename()).c_str(), RTLD_NOW | RTLD_LOCAL);
    const auto list = file ? reinterpret_cast<CK_C_GetFunctionList>(dlsym(file, "C_GetFunctionList")) : nullptr;
    Client made;
    require(list && list(&made.f) == CKR_OK, "loading the standard module");
    made.start();
    return made;
  }();
  return client;
}

Client& module() {
  static Client client = [] {
    Client made;
    require(C_GetFunctionList(&made.f) == CKR_OK, "C_GetFunctionList");
    made.session = session();
    return made;
  }();
  return client;
}

CK_ULONG find(const Client& client, CK_ATTRIBUTE_TYPE type, const void* value, std::size_t length,
              CK_OBJECT_HANDLE* found, CK_ULONG room) {
  CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &objectClass, sizeof objectClass},
                           {type, const_cast<void*>(value), static_cast<CK_ULONG>(length)}};
  CK_ULONG count = 0;
  require(client.f->C_FindObjectsInit(client.session, wanted, 2) == CKR_OK &&
              client.f->C_FindObjects(client.session, found, room, &count) == CKR_OK &&
              client.f->C_FindObjectsFinal(client.session) == CKR_OK,
          "searching");
  return count;
}

CK_OBJECT_HANDLE findKey(const Client& client, const TavrinKeyPair& key) {
  CK_OBJECT_HANDLE found = 0;
  require(find(client, CKA_ID, key.keyId, key.keyIdLength, &found, 1) == 1, "finding a key");
  return found;
}

void sign(const Client& client, CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key) {
  CK_MECHANISM mechanism{type, nullptr, 0};
  std::array<CK_BYTE, 1024> data{};
  std::array<CK_BYTE, 512> signature{};
  CK_ULONG length = signature.size();
  require(client.f->C_SignInit(session, &mechanism, key) == CKR_OK &&
              client.f->C_Sign(session, data.data(), data.size(), signature.data(), &length) == CKR_OK,
          "signing");
}

template <TavrinKeyPair BenchToken::*key, CK_MECHANISM_TYPE type>
void signBoth(State& state) {
  const CK_OBJECT_HANDLE ours = findKey(standard(), token().*key), theirs = findKey(module(), token().*key);
  compare<CpuClock>(
      state, [&] { sign(standard(), standard().session, type, ours); },
      [&] { sign(module(), module().session, type, theirs); });
}

void findBoth(State& state) {
  compare<CpuClock>(
      state, [] { findKey(standard(), token().rsa); }, [] { findKey(module(), token().rsa); });
}

// 64 signatures by 16 threads, compared with 64 by one.
void threads(State& state) {
  const CK_OBJECT_HANDLE key = findKey(standard(), token().p256);
  std::vector<CK_SESSION_HANDLE> sessions(16);
  CK_SESSION_INFO info;
  require(standard().f->C_GetSessionInfo(standard().session, &info) == CKR_OK, "C_GetSessionInfo");
  for (CK_SESSION_HANDLE& one : sessions) {
    require(standard().f->C_OpenSession(info.slotID, CKF_SERIAL_SESSION, nullptr, nullptr, &one) == CKR_OK,
            "C_OpenSession");
  }
  // The threads are started before: to start them costs more than the locks that are measured.
  std::barrier<> turn(17);
  std::size_t count = 0;
  std::vector<std::thread> running;
  for (std::size_t i = 0; i < 16; ++i) {
    running.emplace_back([&, i] {
      for (turn.arrive_and_wait(); count != 0; turn.arrive_and_wait()) {
        for (std::size_t round = 0; i < count && round < 64 / count; ++round)
          sign(standard(), sessions[i], CKM_ECDSA_SHA256, key);
        turn.arrive_and_wait();
      }
    });
  }
  const auto signWith = [&](std::size_t threadCount) {
    count = threadCount;
    turn.arrive_and_wait();
    if (count != 0) turn.arrive_and_wait();
  };
  compare(
      state, [&] { signWith(16); }, [&] { signWith(1); });
  signWith(0);
  for (std::thread& thread : running) thread.join();
  for (const CK_SESSION_HANDLE one : sessions) standard().f->C_CloseSession(one);
}

// The first search by an attribute that the module cannot compare reads every key once.
void firstSearch(State& state) {
  Client& client = standard();
  setKeyPairCount(static_cast<std::size_t>(state.range(0)));
  std::vector<CK_OBJECT_HANDLE> found(2000);
  const CK_BBOOL yes = CK_TRUE;
  for (auto _ : state) {
    client.f->C_Finalize(nullptr);
    client.start();
    const auto start = CpuClock::now();
    const CK_ULONG count = find(client, CKA_SIGN, &yes, 1, found.data(), 2000);
    state.SetIterationTime(std::chrono::duration<double>(CpuClock::now() - start).count());
    require(count == static_cast<CK_ULONG>(state.range(0)), "finding all keys");
  }
  restoreKeyPairs();
  client.f->C_Finalize(nullptr);
  client.start();
}

BENCHMARK(signBoth<&BenchToken::rsa, CKM_SHA256_RSA_PKCS>)->Name("standard module: sign, SHA-256 with RSA 2048");
BENCHMARK(signBoth<&BenchToken::p256, CKM_ECDSA_SHA256>)->Name("standard module: sign, SHA-256 with P-256");
BENCHMARK(findBoth)->Name("standard module: find a key by its id");
BENCHMARK(threads)->Name("standard module: 64 signatures by 16 threads or 1");
BENCHMARK(firstSearch)
    ->Name("standard module: first search by use")
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->Iterations(2)
    ->UseManualTime();

}  // namespace
}  // namespace bench
