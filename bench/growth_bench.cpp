// How the times grow with the number of objects on the token and of open sessions.
#include <benchmark/benchmark.h>

#include "bench/bench_token.h"
#include "objects/handle_ranges.h"
#include "slots/slot_table.h"

namespace bench {
namespace {

using benchmark::State;

void objects(benchmark::internal::Benchmark* row) {
  for (const int count : {1, 10, 100, 1000}) row->Arg(count);
}

// Runs `work` on a token with the number of key pairs that the row gives.
template <typename Work>
void withKeyPairs(State& state, Work work) {
  session();
  setKeyPairCount(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) work(static_cast<CK_OBJECT_HANDLE>(state.range(0)));
  restoreKeyPairs();
}

void findAll(State& state) {
  withKeyPairs(state, [](CK_OBJECT_HANDLE) {
    CK_OBJECT_CLASS objectClass = CKO_PUBLIC_KEY;
    CK_ATTRIBUTE wanted{CKA_CLASS, &objectClass, sizeof objectClass};
    std::vector<CK_OBJECT_HANDLE> found(1000);
    CK_ULONG count = 0;
    require(C_FindObjectsInit(session(), &wanted, 1) == CKR_OK &&
                C_FindObjects(session(), found.data(), static_cast<CK_ULONG>(found.size()), &count) == CKR_OK &&
                C_FindObjectsFinal(session()) == CKR_OK,
            "finding all public keys");
  });
}

void readLast(State& state) {
  withKeyPairs(state, [](CK_OBJECT_HANDLE last) {
    CK_BYTE point[256];
    CK_ATTRIBUTE attribute{CKA_EC_POINT, point, sizeof point};
    require(C_GetAttributeValue(session(), tavrin::publicKeyBase + last, &attribute, 1) == CKR_OK,
            "reading the last key");
  });
}

void useSession(State& state) {
  session();
  std::vector<CK_SESSION_HANDLE> opened(static_cast<std::size_t>(state.range(0)));
  for (CK_SESSION_HANDLE& handle : opened) {
    require(C_OpenSession(tavrin::firstSlotId, CKF_SERIAL_SESSION, nullptr, nullptr, &handle) == CKR_OK,
            "C_OpenSession");
  }
  CK_SESSION_INFO info;
  for (auto _ : state) require(C_GetSessionInfo(opened.back(), &info) == CKR_OK, "C_GetSessionInfo");
  for (const CK_SESSION_HANDLE handle : opened) C_CloseSession(handle);
}

void openAndClose(State& state) {
  session();
  std::vector<CK_SESSION_HANDLE> opened(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    for (CK_SESSION_HANDLE& handle : opened) {
      require(C_OpenSession(tavrin::firstSlotId, CKF_SERIAL_SESSION, nullptr, nullptr, &handle) == CKR_OK,
              "C_OpenSession");
    }
    for (const CK_SESSION_HANDLE handle : opened) C_CloseSession(handle);
  }
}

BENCHMARK(findAll)->Name("find all of N keys")->Apply(objects);
BENCHMARK(readLast)->Name("read the point of the last of N keys")->Apply(objects);
BENCHMARK(useSession)->Name("session information among N sessions")->Apply(objects);
BENCHMARK(openAndClose)->Name("open and close N sessions")->Apply(objects);

}  // namespace
}  // namespace bench
