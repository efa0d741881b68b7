// Brings the module into a state and then leaves in one of the ways in which processes end, with exit code 42 and
// without finalising: lifecycle_child STATE WAY. It says "leaving" just before it does. With the way "fork" a child
// process starts the module again and finalises it, and the parent continues with its own. With the way "late" the
// module is started once more by the last destructor of the process.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

#include "test_platform.h"
#include "token_session.h"

namespace {

constexpr int exitCode = 42;

CK_FUNCTION_LIST* functions = nullptr;

// It exists before the module is loaded, so it is destroyed after what the module destroys.
struct Late {
  bool starts = false;
  ~Late() {
    if (!starts) return;
    const CK_RV result = functions->C_Initialize(nullptr);
    std::_Exit(result == CKR_OK || result == CKR_CRYPTOKI_ALREADY_INITIALIZED ? exitCode : 4);
  }
} late;

void enter(const std::string& state, void*& library) {
  for (int round = 0; state == "reloaded" && round < 20; ++round) {
    closeLibrary(library);
    const CryptokiModule module(setting("E2E_MODULE"));
    if (slotsWithToken(module).size() != 1) throw std::runtime_error("the token is not there");
    library = openLibrary(setting("E2E_MODULE"));
  }
  check(reinterpret_cast<CK_C_GetFunctionList>(findFunction(library, "C_GetFunctionList"))(&functions),
        "C_GetFunctionList");
  if (state == "loaded" || state == "reloaded") return;
  // It holds the module a second time, so that the states below can be reached with the usual helpers. It is never
  // destroyed: that would finalise the module.
  static TokenSession* const token = new TokenSession;
  closeLibrary(library);
  if (state == "initialised") return;
  check(token->login(), "C_Login");
  if (state == "signing") {
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    check(functions->C_SignInit(token->handle, &mechanism, token->find(CKO_PRIVATE_KEY, "key")), "C_SignInit");
  }
  if (state == "waiting") {
    std::thread([] {
      CK_SLOT_ID slot = 0;
      while (functions->C_WaitForSlotEvent(0, &slot, nullptr) == CKR_OK) {
      }
    }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

// What the child of a fork does, whatever the parent was doing.
int beginAnew() {
  CK_ULONG count = 0;
  CK_SESSION_INFO info;
  if (functions->C_GetSlotList(CK_TRUE, nullptr, &count) != CKR_CRYPTOKI_NOT_INITIALIZED) return 1;
  TokenSession token;
  if (functions->C_GetSessionInfo(token.handle + 1, &info) != CKR_SESSION_HANDLE_INVALID) return 3;
  check(token.login(), "C_Login in the child");
  return token.find(CKO_PRIVATE_KEY, "key") == CK_INVALID_HANDLE ? 2 : exitCode;
}

void leave(const std::string& way, void* library) {
  std::printf("leaving\n");
  std::fflush(stdout);
  late.starts = way == "late";
  if (way == "exit" || way == "late") std::exit(exitCode);
  if (way == "_exit") std::_Exit(exitCode);
  if (way == "fork") {
    CK_ULONG count = 0;
    const int code = testPlatform::exitCodeOfFork(beginAnew);
    const CK_RV result = functions->C_GetSlotList(CK_TRUE, nullptr, &count);
    if (result != CKR_OK && result != CKR_CRYPTOKI_NOT_INITIALIZED) std::_Exit(3);
    std::_Exit(code);
  }
  if (way == "unload") {
    closeLibrary(library);
    // Longer than the monitor sleeps, so that it wakes in a module that the application has let go of.
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  try {
    void* library = openLibrary(setting("E2E_MODULE"));
    enter(argv[1], library);
    leave(argv[2], library);
    return exitCode;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lifecycle_child: %s\n", error.what());
    return 1;
  }
}
