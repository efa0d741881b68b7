// Loading a Cryptoki library while the program runs, and the few helpers that every client needs.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pkcs11.h"

// The platform's way to load a library, look up one of its functions and unload it again. openLibrary throws
// std::runtime_error with the platform's own explanation; findFunction answers null for an unknown name.
void* openLibrary(const std::string& path);
void* findFunction(void* library, const char* name);
void closeLibrary(void* library);

// Makes Windows' console show UTF-8, in which tokens have their texts, until this object is destroyed.
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

// Throws std::runtime_error, naming the call and its result, unless the result is CKR_OK.
void check(CK_RV result, const char* call);

// The slots that hold a token, in the module's order.
std::vector<CK_SLOT_ID> slotsWithToken(const CryptokiModule& module);

// A text field of CK_INFO, CK_SLOT_INFO or CK_TOKEN_INFO. The standard pads them with blanks; this module ends them
// with a NUL. Cutting at the first NUL and dropping blanks at the end reads both.
std::string textOf(const CK_UTF8CHAR* field, std::size_t size);
