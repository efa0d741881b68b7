// C_FindObjectsInit, C_FindObjects and C_FindObjectsFinal.
#include "module_test.h"

namespace {

using Handles = std::vector<CK_OBJECT_HANDLE>;

class ObjectSearchTest : public ModuleTest {
 protected:
  static Call init(CK_SESSION_HANDLE session, const Template& attributes) {
    return {"C_FindObjectsInit", [=] { return C_FindObjectsInit(session, attributes.data(), attributes.size()); }};
  }
  Handles results(CK_SESSION_HANDLE session, CK_ULONG most = 16) {
    CK_OBJECT_HANDLE handles[16] = {};
    CK_ULONG count = 77;
    ok(C_FindObjects(session, handles, most, &count));
    return {handles, handles + count};
  }
  Handles find(CK_SESSION_HANDLE session, const Template& attributes) {
    ok(init(session, attributes));
    Handles found = results(session);
    ok(C_FindObjectsFinal(session));
    return found;
  }
};

const std::string certificates = number(CKO_CERTIFICATE);
const std::string publicKeys = number(CKO_PUBLIC_KEY);
const std::string privateKeys = number(CKO_PRIVATE_KEY);
const Lines listed{certificatesListed, keysListed};

TEST_F(ObjectSearchTest, InitRefusalsResetTheSearchAndKeepTheOperation) {
  const CK_SESSION_HANDLE session = openLoggedIn();
  ok(init(session, {{CKA_CLASS, publicKeys}}));
  bad(CALL(C_FindObjectsInit, session, nullptr, 3), ": pTemplate is NULL with ulCount=3");
  EXPECT_EQ(results(session, 1), Handles{rsaPublic});
  const Lines first{"- Find object init count : 2", "- Find object init type : 258"};
  expect(init(session, {{CKA_ID, "x"}, {CKA_CLASS, Template::nothing}}), CKR_ATTRIBUTE_VALUE_INVALID,
         first + Lines{": pValue is NULL at attribute index=1 type=0"});
  expect(init(session, {{CKA_ID, "x"}, {CKA_VENDOR_DEFINED, ""}}), CKR_ATTRIBUTE_VALUE_INVALID,
         first + Lines{": ulValueLen<=0 at attribute index=1 type=2147483648"});
  expect(init(session, {{CKA_ID, "x"}, {CKA_CLASS, std::string(8, '\1')}}), CKR_ATTRIBUTE_VALUE_INVALID,
         first + Lines{"- Find object init type : 0", ": wrong size for CKA_CLASS at index=1 ulValueLen=8"});
  EXPECT_EQ(results(session), Handles{});
  // Without a buffer for handles, only the log shows the number of objects.
  CK_ULONG count = 77;
  ok(C_FindObjectsInit(session, nullptr, 0));
  does(CALL(C_FindObjects, session, nullptr, 0, &count),
       {"- C_FindObjects find object count : 5", "- C_FindObjects find object max count is 0 : 0",
        "- C_FindObjects find object count return : 0"});
  EXPECT_EQ(count, 0u);
}

TEST_F(ObjectSearchTest, InitLogsItsCriteriaAndAsksForBothLists) {
  const CK_SESSION_HANDLE session = open();
  does(init(session, {{CKA_CLASS, certificates}, {CKA_ID, "\xAB\x0C"}, {CKA_MODULUS, "123"}}),
       Lines{"- Find object init count : 3", "- Find object init type : 0", "- Find object class : 1",
             "- Find object init type : 258", "- Find object init type : 288", "- Modulus provided length : 3"} +
           listed + Lines{"- Find init id : AB0C"});
  does(init(session, {{CKA_CLASS, certificates}, {CKA_SUBJECT, "CN=User"}}),
       Lines{"- Find object init count : 2", "- Find object init type : 0", "- Find object class : 1",
             "- Find object init type : 257"} +
           listed + Lines{"> getCertificateSubject 'CN=User|CN=Root|01' null"});
}

TEST_F(ObjectSearchTest, FirstCriterionPresentDecides) {
  const CK_OBJECT_HANDLE certificate5 = 0x70002005;
  const CK_OBJECT_HANDLE public3 = 0x70001003;
  const CK_OBJECT_HANDLE private3 = 0x70000003;
  fake::edit()->devices[0].certificates.push_back(fake::certificate(5, "CN=Other|CN=Root|02", "Certificate 2"));
  fake::edit()->devices[0].keyPairs.push_back(fake::keyPair(3, 2, "rsa-modulus", "RSA key"));
  const CK_SESSION_HANDLE session = openLoggedIn();
  const std::string der1 = "CN=User|CN=Root|01";
  const std::tuple<CK_OBJECT_CLASS, Template, Handles> rows[] = {
      {CKO_CERTIFICATE, {}, {certificate1, certificate5}},
      {CKO_CERTIFICATE, {{CKA_LABEL, "Certificate"}}, {certificate1}},
      {CKO_CERTIFICATE, {{CKA_LABEL, std::string("Certificate\0 and more", 21)}}, {certificate1}},
      {CKO_CERTIFICATE, {{CKA_LABEL, std::string(1, '\0')}}, {certificate1, certificate5}},
      {CKO_CERTIFICATE, {{CKA_VALUE, der1}}, {certificate1}},
      {CKO_CERTIFICATE, {{CKA_VALUE, der1 + "|"}}, {}},
      {CKO_CERTIFICATE, {{CKA_ID, "id-"}}, {}},
      {CKO_CERTIFICATE, {{CKA_SUBJECT, "CN=Other"}}, {certificate5}},
      {CKO_CERTIFICATE, {{CKA_SUBJECT, "no"}, {CKA_ID, "id-5"}}, {certificate5}},
      {CKO_CERTIFICATE, {{CKA_ID, "id-5"}, {CKA_VALUE, der1}}, {certificate1}},
      {CKO_CERTIFICATE, {{CKA_VALUE, der1}, {CKA_LABEL, "Certificate 2"}}, {certificate5}},
      {CKO_CERTIFICATE, {{CKA_ID, "id-1"}, {CKA_ID, "id-5"}}, {certificate5}},
      {CKO_PUBLIC_KEY, {{CKA_CLASS, certificates}, {CKA_ID, "id-5"}}, {certificate5}},
      {CKO_PRIVATE_KEY, {}, {rsaPrivate, ecPrivate, private3}},
      {CKO_PRIVATE_KEY, {{CKA_LABEL, "RSA key"}}, {rsaPrivate, private3}},
      {CKO_PUBLIC_KEY, {{CKA_VALUE, "ec-point"}}, {ecPublic}},
      {CKO_PUBLIC_KEY, {{CKA_MODULUS, "rsa-modulus"}}, {rsaPublic, public3}},
      {CKO_PUBLIC_KEY, {{CKA_SUBJECT, "no criterion here"}}, {rsaPublic, ecPublic, public3}},
      {CKO_PRIVATE_KEY, {{CKA_ID, "id-3"}, {CKA_MODULUS, "ec-point"}}, {private3}},
      {CKO_PRIVATE_KEY, {{CKA_ID, "id-3"}, {CKA_VALUE, "ec-point"}}, {ecPrivate}},
      {CKO_SECRET_KEY, {}, {}},
      {CKO_VENDOR_DEFINED, {}, {}}};
  for (const auto& [objectClass, more, found] : rows) {
    std::vector<CK_ATTRIBUTE> attributes(more.data(), more.data() + more.size());
    CK_OBJECT_CLASS wanted = objectClass;
    attributes.insert(attributes.begin(), {CKA_CLASS, &wanted, sizeof wanted});
    ok(CALL(C_FindObjectsInit, session, attributes.data(), static_cast<CK_ULONG>(attributes.size())));
    EXPECT_EQ(results(session), found) << "class " << objectClass << ", " << ::testing::PrintToString(found);
  }
  // Without a class no criterion counts.
  EXPECT_EQ(find(session, {{CKA_LABEL, "none"}, {CKA_ID, "none"}, {CKA_TOKEN, "\1"}}),
            (Handles{rsaPublic, ecPublic, public3, rsaPrivate, ecPrivate, private3, certificate1, certificate5}));
  ok(login(session, CKU_SO));  // who sees no private keys, like the public
  EXPECT_EQ(find(session, {{CKA_CLASS, privateKeys}}), Handles{});
}

TEST_F(ObjectSearchTest, ResultsAreHandedOutInPortionsOfASnapshot) {
  const CK_SESSION_HANDLE session = openLoggedIn(readOnly);
  ok(C_FindObjectsInit(session, nullptr, 0));
  fake::edit()->devices[0].keyPairs.clear();
  CK_OBJECT_HANDLE handles[3] = {7, 7, 7};
  CK_ULONG count = 77;
  const Call find = CALL(C_FindObjects, session, handles, 2, &count);
  does(find, {"- C_FindObjects find object count : 5", "- Find object return : 1879052289",
              "- Find object return : 1879052290", "- C_FindObjects find object count return : 2"});
  EXPECT_EQ(handles[2], 7u);
  EXPECT_EQ(results(session, 2), (Handles{rsaPrivate, ecPrivate}));
  EXPECT_EQ(results(session, 2), Handles{certificate1});
  does(find, {"- C_FindObjects find object count : 5", "- C_FindObjects find object count return : 0"});
  EXPECT_EQ(count, 0u);
  does(CALL(C_FindObjectsFinal, session));
  ok(init(session, {{CKA_CLASS, privateKeys}}));
  does(find, {"- C_FindObjects find object count : 0", "- C_FindObjects find object count 0"});
}

TEST_F(ObjectSearchTest, EmptyListsInitializeTheDevice) {
  const CK_SESSION_HANDLE session = open();
  const Call search = CALL(C_FindObjectsInit, session, nullptr, 0);
  const Lines start = Lines{"- Find object init count : 0"} + listed + Lines{"> initDevice TK1 flag=1 inst"};
  const fake::Device full = fake::edit()->devices[0];
  fake::edit()->devices[0].initialized = false;
  fake::fail("initDevice", -4);
  does(search, start + Lines{"Init device for certificates in find objects failed : -4"});
  EXPECT_EQ(results(session), Handles{});
  does(search, start + listed);
  EXPECT_EQ(results(session), (Handles{rsaPublic, ecPublic, certificate1}));
  // One list that is empty, of whichever kind, is enough.
  fake::edit()->devices[0].keyPairs.clear();
  does(search, start + listed);
  EXPECT_EQ(results(session), Handles{certificate1});
  fake::edit()->devices[0] = full;
  fake::edit()->devices[0].certificates.clear();
  does(search, start + listed);
  EXPECT_EQ(results(session), (Handles{rsaPublic, ecPublic}));
}

}  // namespace
