// Writes a certificate, given as a DER file, to the first token: import_certificate FILE [LABEL]
#include <cstdio>
#include <exception>
#include <string>

#include "token_session.h"

int main(int argc, char** argv) try {
  TokenSession token;
  check(token.login(), "C_Login");
  Bytes der = readFile(argc > 1 ? argv[1] : "");
  std::string label = argc > 2 ? argv[2] : "";
  CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
  CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &objectClass, sizeof(objectClass)},
                               {CKA_VALUE, der.data(), static_cast<CK_ULONG>(der.size())},
                               {CKA_LABEL, label.data(), static_cast<CK_ULONG>(label.size())}};
  CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
  check(token.module->C_CreateObject(token.handle, attributes, argc > 2 ? 3 : 2, &object), "C_CreateObject");
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
