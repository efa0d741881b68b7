// The time from loading the library to the first signature, and that of C_Finalize.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "bench/bench_token.h"
#include "objects/handle_ranges.h"

namespace bench {
namespace {

using benchmark::State;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void firstSignature(const CK_FUNCTION_LIST& cryptoki, const TavrinKeyPair& key) {
  CK_SLOT_ID slot = 0;
  CK_ULONG count = 1;
  CK_SESSION_HANDLE opened = 0;
  CK_BYTE data[] = "data";
  CK_BYTE signature[512];
  CK_ULONG length = sizeof signature;
  CK_MECHANISM mechanism{CKM_ECDSA_SHA256, nullptr, 0};
  require(cryptoki.C_Initialize(nullptr) == CKR_OK && cryptoki.C_GetSlotList(CK_TRUE, &slot, &count) == CKR_OK &&
              cryptoki.C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &opened) == CKR_OK &&
              login(cryptoki.C_Login, opened) == CKR_OK &&
              cryptoki.C_SignInit(opened, &mechanism, tavrin::privateKeyBase + key.id) == CKR_OK &&
              cryptoki.C_Sign(opened, data, sizeof data, signature, &length) == CKR_OK,
          "the first signature");
}

// Loads a copy of the library, because this program is linked with the module itself.
void loadToFirstSignature(State& state) {
  const TavrinKeyPair key = token().p256;
  const auto copy = surroundings().folder() / "module-to-load.so";
  std::filesystem::copy_file(MODULE_FILE, copy, std::filesystem::copy_options::overwrite_existing);
  for (auto _ : state) {
    const auto start = Clock::now();
    void* library = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    require(library != nullptr, "loading the module");
    auto* const getList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR cryptoki = nullptr;
    require(getList != nullptr && getList(&cryptoki) == CKR_OK, "C_GetFunctionList");
    firstSignature(*cryptoki, key);
    state.SetIterationTime(secondsSince(start));
    cryptoki->C_Finalize(nullptr);
    dlclose(library);
  }
}

// At a random moment of the monitor's sleep. In a child process, because the session of the other benchmarks ends here.
void finalize(State& state) {
  token();
  for (auto _ : state) {
    int channel[2];
    require(pipe(channel) == 0, "pipe");
    const pid_t child = fork();
    if (child == 0) {
      C_Initialize(nullptr);
      usleep(static_cast<useconds_t>(20000 + 7919 * (getpid() % 10)));
      const auto start = Clock::now();
      C_Finalize(nullptr);
      const double seconds = secondsSince(start);
      _exit(write(channel[1], &seconds, sizeof seconds) == sizeof seconds ? 0 : 1);
    }
    double seconds = 0;
    require(read(channel[0], &seconds, sizeof seconds) == sizeof seconds, "C_Finalize in a child");
    waitpid(child, nullptr, 0);
    close(channel[0]);
    close(channel[1]);
    state.SetIterationTime(seconds);
  }
}

BENCHMARK(loadToFirstSignature)->Name("load to first signature")->UseManualTime()->Iterations(5);
BENCHMARK(finalize)->Name("C_Finalize")->UseManualTime()->Iterations(10);

}  // namespace
}  // namespace bench
