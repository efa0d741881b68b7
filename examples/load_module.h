// Loads a Cryptoki library at run time, and has the few helper functions that every client needs.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pkcs11.h"

// Load a library, look up one of its functions, and unload it. openLibrary throws std::runtime_error with the system's
// explanation; findFunction returns null for an unknown name.
void* openLibrary(const std::string& path);
void* findFunction(void* library, const char* name);
void closeLibrary(void* library);

// Sets Windows' console to UTF-8, the encoding of texts on tokens, until this object is destroyed.
class Utf8Console {
 public:
  Utf8Console();
  ~Utf8Console();  // NOLINT(performance-trivially-destructible): on Windows it restores the code page
  Utf8Console(const Utf8Console&) = delete;
  Utf8Console& operator=(const Utf8Console&) = delete;

 private:
  [[maybe_unused]] unsigned before = 0;  // the console's code page
};

// A loaded and initialised module; it is finalised and unloaded when this object is destroyed.
//
//   CryptokiModule module("./libtavrin-pkcs11.so");
//   check(module->C_GetSlotList(...), "C_GetSlotList");
class CryptokiModule {
 public:
  // Throws std::runtime_error when the file is no Cryptoki library or does not initialise.
  explicit CryptokiModule(const std::string& path);
  ~CryptokiModule();
  CryptokiModule(const CryptokiModule&) = delete;
  CryptokiModule& operator=(const CryptokiModule&) = delete;

  CK_FUNCTION_LIST* operator->() const { return functions; }

 private:
  void* library;
  CK_FUNCTION_LIST* functions = nullptr;
};

// Throws std::runtime_error with the call's name and its result unless the result is CKR_OK.
void check(CK_RV result, const char* call);

// The slots that hold a token, in the module's order.
std::vector<CK_SLOT_ID> slotsWithToken(const CryptokiModule& module);

// Reads a text field of CK_INFO, CK_SLOT_INFO or CK_TOKEN_INFO. The standard pads these fields with blanks, and
// TavrinPKCS11 ends them with a NUL. This function accepts both.
std::string textOf(const CK_UTF8CHAR* field, std::size_t size);
