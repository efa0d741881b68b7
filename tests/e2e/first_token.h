// The first token, as the clients of the end-to-end tests use it. Failures throw.
#pragma once

#include <cstdlib>
#include <fstream>
#include <string>

#include "load_module.h"

// Returns a read-write session.
inline CK_SESSION_HANDLE openSession(const CryptokiModule& module) {
  constexpr CK_FLAGS flags = CKF_SERIAL_SESSION | CKF_RW_SESSION;
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
  check(module->C_OpenSession(slotsWithToken(module).at(0), flags, nullptr, nullptr, &session), "C_OpenSession");
  return session;
}

// Logs the user in, with the PIN of the script that runs this program.
inline void logIn(const CryptokiModule& module, CK_SESSION_HANDLE session) {
  std::ifstream file(std::getenv("E2E_PIN_FILE"));
  std::string pin;
  std::getline(file, pin);
  auto* const text = reinterpret_cast<CK_BYTE*>(pin.data());
  check(module->C_Login(session, CKU_USER, text, static_cast<CK_ULONG>(pin.size())), "C_Login");
}
