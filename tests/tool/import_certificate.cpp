// Writes a certificate, given as a DER file, to the first token: import_certificate FILE [ID [LABEL]]
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "token_session.h"

int main(int argc, char** argv) try {
  TokenSession token;
  check(token.login(), "C_Login");
  const Bytes der = readFile(argc > 1 ? argv[1] : "");
  Bytes id;
  for (const std::string hex = argc > 2 ? argv[2] : ""; 2 * id.size() < hex.size();)
    id.push_back(static_cast<CK_BYTE>(std::stoul(hex.substr(2 * id.size(), 2), nullptr, 16)));
  const std::string label = argc > 3 ? argv[3] : "";
  Attributes attributes{{CKA_VALUE, der}};
  if (!id.empty()) attributes.push_back({CKA_ID, id});
  if (!label.empty()) attributes.push_back({CKA_LABEL, textView(label)});
  CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
  check(token.create(CKO_CERTIFICATE, attributes, &object), "C_CreateObject");
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
