// Writes a certificate, given as a DER file, to the first token: import_certificate FILE [ID [LABEL]]
#include <cstdio>
#include <exception>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "first_token.h"

int main(int argc, char** argv) try {
  const CryptokiModule module(std::getenv("E2E_MODULE"));
  const CK_SESSION_HANDLE session = openSession(module);
  logIn(module, session);
  std::ifstream file(argc > 1 ? argv[1] : "", std::ios::binary);
  std::string der(std::istreambuf_iterator<char>(file), {}), id, label = argc > 3 ? argv[3] : "";
  for (const std::string hex = argc > 2 ? argv[2] : ""; 2 * id.size() < hex.size();)
    id.push_back(static_cast<char>(std::stoul(hex.substr(2 * id.size(), 2), nullptr, 16)));
  CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
  std::vector<CK_ATTRIBUTE> attributes{{CKA_CLASS, &objectClass, sizeof objectClass}};
  for (const auto& [type, value] : {std::pair{CKA_VALUE, &der}, {CKA_ID, &id}, {CKA_LABEL, &label}})
    if (!value->empty()) attributes.push_back({type, value->data(), static_cast<CK_ULONG>(value->size())});
  const auto count = static_cast<CK_ULONG>(attributes.size());
  CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
  check(module->C_CreateObject(session, attributes.data(), count, &object), "C_CreateObject");
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
