// The standard module beside the module that it uses: a signature, and finding a key by its ID among three.
//
// Usage: standard_bench MODULE STANDARD_MODULE PIN_FILE. Makes three RSA keys on the first token if there are none.
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "pkcs11.h"

namespace {

constexpr int keys = 3;
constexpr int rounds = 15;

void check(CK_RV code, const char* what) {
  if (code != CKR_OK) throw std::runtime_error(std::string(what) + " failed: " + std::to_string(code));
}

class Library {
 public:
  Library(const char* path, std::string pin) : file_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    const auto list = file_ ? reinterpret_cast<CK_C_GetFunctionList>(dlsym(file_, "C_GetFunctionList")) : nullptr;
    if (!list || list(&f_) != CKR_OK) throw std::runtime_error(std::string("cannot load ") + path);
    check(f_->C_Initialize(nullptr), "C_Initialize");
    CK_SLOT_ID slots[16];
    CK_ULONG count = 16;
    check(f_->C_GetSlotList(CK_TRUE, slots, &count), "C_GetSlotList");
    if (count == 0) throw std::runtime_error("there is no token");
    check(f_->C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session_),
          "C_OpenSession");
    auto* text = reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data());
    check(f_->C_Login(session_, CKU_USER, text, static_cast<CK_ULONG>(pin.size())), "C_Login");
    for (CK_BYTE id = 1; id <= keys; ++id)
      if (find(id) == CK_INVALID_HANDLE) generate(id);
  }
  ~Library() {
    f_->C_Finalize(nullptr);
    dlclose(file_);
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  CK_OBJECT_HANDLE find(CK_BYTE id) {
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE wanted[] = {{CKA_CLASS, &objectClass, sizeof objectClass}, {CKA_ID, &id, 1}};
    CK_OBJECT_HANDLE found[4] = {CK_INVALID_HANDLE};
    CK_ULONG count = 0;
    check(f_->C_FindObjectsInit(session_, wanted, 2), "C_FindObjectsInit");
    check(f_->C_FindObjects(session_, found, 4, &count), "C_FindObjects");
    check(f_->C_FindObjectsFinal(session_), "C_FindObjectsFinal");
    return found[0];
  }

  void sign(CK_OBJECT_HANDLE key) {
    CK_MECHANISM mechanism{CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_BYTE data[32] = {};
    CK_BYTE signature[512];
    CK_ULONG length = sizeof signature;
    check(f_->C_SignInit(session_, &mechanism, key), "C_SignInit");
    check(f_->C_Sign(session_, data, sizeof data, signature, &length), "C_Sign");
  }

 private:
  void generate(CK_BYTE id) {
    CK_MECHANISM mechanism{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    CK_ULONG bits = 2048;
    CK_BBOOL yes = CK_TRUE;
    CK_KEY_TYPE keyType = CKK_RSA;
    CK_ATTRIBUTE publicKey[] = {{CKA_MODULUS_BITS, &bits, sizeof bits}, {CKA_TOKEN, &yes, 1}};
    CK_ATTRIBUTE privateKey[] = {{CKA_KEY_TYPE, &keyType, sizeof keyType}, {CKA_ID, &id, 1}, {CKA_TOKEN, &yes, 1}};
    CK_OBJECT_HANDLE handles[2];
    check(f_->C_GenerateKeyPair(session_, &mechanism, publicKey, 2, privateKey, 3, &handles[0], &handles[1]),
          "C_GenerateKeyPair");
  }

  void* file_;
  CK_FUNCTION_LIST_PTR f_ = nullptr;
  CK_SESSION_HANDLE session_ = 0;
};

// The least processor time of several rounds, in microseconds a call: other programs do not count.
template <typename Body>
double measure(int calls, Body&& body) {
  double best = 1e30;
  for (int round = 0; round < rounds; ++round) {
    const std::clock_t start = std::clock();
    for (int i = 0; i < calls; ++i) body();
    best = std::min(best, 1e6 * static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC / calls);
  }
  return best;
}

struct Times {
  double find;
  double sign;
};

Times measureLibrary(const char* path, const std::string& pin) {
  Library library(path, pin);
  const CK_OBJECT_HANDLE key = library.find(2);
  return {measure(1000, [&] { library.find(2); }), measure(100, [&] { library.sign(key); })};
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 4) throw std::runtime_error("usage: standard_bench MODULE STANDARD_MODULE PIN_FILE");
  std::string pin;
  std::getline(std::ifstream(argv[3]) >> std::ws, pin);
  // One after the other: only one of them may have the module initialised.
  const Times module = measureLibrary(argv[1], pin);
  const Times standard = measureLibrary(argv[2], pin);
  std::printf("%-28s %10s %10s %7s\n", "microseconds a call", "module", "standard", "ratio");
  std::printf("%-28s %10.2f %10.2f %7.3f\n", "find by ID among three", module.find, standard.find,
              standard.find / module.find);
  std::printf("%-28s %10.2f %10.2f %7.3f\n", "sign, RSA 2048, SHA-256", module.sign, standard.sign,
              standard.sign / module.sign);
  return 0;
} catch (const std::exception& failure) {
  std::fprintf(stderr, "%s\n", failure.what());
  return 1;
}
