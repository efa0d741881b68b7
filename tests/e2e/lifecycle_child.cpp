// Brings the module into a state and then leaves in one of the ways in which processes end, with exit code 42 and
// without finalising: lifecycle_child STATE WAY. It says "leaving" just before it does. With the way "fork" a child
// process starts the module again and finalises it, and the parent continues with its own. With the way "late" the
// module is started once more by the last destructor of the process.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>

#include "first_token.h"
#include "test_platform.h"

namespace {

constexpr int exitCode = 42;
const char* const modulePath = std::getenv("E2E_MODULE");

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

CK_OBJECT_HANDLE findPrivateKey(CK_SESSION_HANDLE session) {
  CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE wanted = {CKA_CLASS, &objectClass, sizeof objectClass};
  CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
  CK_ULONG count = 0;
  check(functions->C_FindObjectsInit(session, &wanted, 1), "C_FindObjectsInit");
  check(functions->C_FindObjects(session, &key, 1, &count), "C_FindObjects");
  check(functions->C_FindObjectsFinal(session), "C_FindObjectsFinal");
  return key;
}

void enter(const std::string& state, void*& library) {
  for (int round = 0; state == "reloaded" && round < 20; ++round) {
    closeLibrary(library);
    const CryptokiModule module(modulePath);
    if (slotsWithToken(module).size() != 1) throw std::runtime_error("the token is not there");
    library = openLibrary(modulePath);
  }
  check(reinterpret_cast<CK_C_GetFunctionList>(findFunction(library, "C_GetFunctionList"))(&functions),
        "C_GetFunctionList");
  if (state == "loaded" || state == "reloaded") return;
  // It is never destroyed: that would finalise the module.
  static const auto& module = *new CryptokiModule(modulePath);
  closeLibrary(library);
  const CK_SESSION_HANDLE session = openSession(module);
  if (state == "initialised") return;
  logIn(module, session);
  if (state == "signing") {
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    check(functions->C_SignInit(session, &mechanism, findPrivateKey(session)), "C_SignInit");
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
  const CryptokiModule module(modulePath);
  const CK_SESSION_HANDLE session = openSession(module);
  if (functions->C_GetSessionInfo(session + 1, &info) != CKR_SESSION_HANDLE_INVALID) return 3;
  logIn(module, session);
  return findPrivateKey(session) == CK_INVALID_HANDLE ? 2 : exitCode;
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
    // Longer than the monitor sleeps, so that it wakes after the application has closed the module.
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  try {
    void* library = openLibrary(modulePath);
    enter(argv[1], library);
    leave(argv[2], library);
    return exitCode;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lifecycle_child: %s\n", error.what());
    return 1;
  }
}
