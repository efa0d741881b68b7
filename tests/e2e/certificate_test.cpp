// Importing a certificate with its chain, reading it back and deleting it.
#include <gtest/gtest.h>

#include "token_session.h"

namespace {

CK_RV createCertificate(TokenSession& token, const std::string& name, CK_OBJECT_HANDLE* object) {
  Bytes der = readFile(name + ".der");
  std::string label = name;
  CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
  CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &objectClass, sizeof(objectClass)},
                               {CKA_LABEL, label.data(), static_cast<CK_ULONG>(label.size())},
                               {CKA_VALUE, der.data(), static_cast<CK_ULONG>(der.size())}};
  return token.module->C_CreateObject(token.handle, attributes, 3, object);
}

TEST(Certificates, AreImportedWithTheirChainReadAndDeleted) {
  TokenSession token;
  ASSERT_EQ(token.login(), CKR_OK);
  CK_OBJECT_HANDLE leaf = CK_INVALID_HANDLE;
  ASSERT_EQ(createCertificate(token, "leaf", &leaf), CKR_OK);

  // Issuers carry their common names as labels. The records count up, so the order of the handles is that of the
  // import.
  const std::pair<const char*, const char*> chain[] = {
      {"Example Root", "root.der"}, {"Example Middle", "middle.der"}, {"leaf", "leaf.der"}};
  CK_OBJECT_HANDLE last = CK_INVALID_HANDLE;
  for (const auto& [label, name] : chain) {
    const CK_OBJECT_HANDLE certificate = token.find(CKO_CERTIFICATE, label);
    EXPECT_GT(certificate, last) << label;
    EXPECT_EQ(token.attribute(certificate, CKA_VALUE), readFile(name)) << label;
    last = certificate;
  }
  EXPECT_EQ(last, leaf);
  EXPECT_EQ(token.findAll(CKO_CERTIFICATE, "").size(), 3U);
  EXPECT_EQ(token.attribute(leaf, CKA_ISSUER),
            token.attribute(token.find(CKO_CERTIFICATE, "Example Middle"), CKA_SUBJECT));

  // Imported again, every one of them is there already.
  ASSERT_EQ(createCertificate(token, "leaf", &leaf), CKR_OK);
  EXPECT_EQ(token.findAll(CKO_CERTIFICATE, "").size(), 3U);

  for (const auto& [label, name] : chain) {
    EXPECT_EQ(token.module->C_DestroyObject(token.handle, token.find(CKO_CERTIFICATE, label)), CKR_OK) << label;
  }
  EXPECT_EQ(token.findAll(CKO_CERTIFICATE, "").size(), 0U);
}

}  // namespace
