// Import of certificates, with their chains, and of private keys; deletion of both.
#include <filesystem>

#include "module_test.h"
#include "test_platform.h"

namespace {

class ObjectCreationTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    testPlatform::setEnvironment("TAVRIN_HOME", "home");
    session_ = openLoggedIn(readOnly);  // neither state nor login is checked
  }
  void TearDown() override {
    testPlatform::setEnvironment("TAVRIN_HOME", nullptr);
    ModuleTest::TearDown();
  }
  Call create(const Template& attributes) {
    return {"C_CreateObject",
            [=, this] { return C_CreateObject(session_, attributes.data(), attributes.size(), &created_); }};
  }
  static void setFiles(const Lines& files) {
    fake::edit()->files.clear();
    for (const std::string& der : files) {
      fake::edit()->files.emplace_back("file", std::vector<std::uint8_t>(der.begin(), der.end()));
    }
  }

  CK_SESSION_HANDLE session_ = 0;
  CK_OBJECT_HANDLE created_ = 77;
};

std::string parsed(const std::string& der) { return "> getCertificateDetails '" + der + "' null"; }
std::string imported(const std::string& label, const std::string& id, const std::string& der) {
  return "> importCertificate TK1 pin='1234' number=0  label='" + label + "' id='" + id + "' '" + der + "' inst";
}
Lines seen(const std::vector<CK_ATTRIBUTE_TYPE>& types) {
  Lines lines;
  for (const CK_ATTRIBUTE_TYPE type : types) {
    lines.push_back("- C_CreateObject - attrip type : " + std::to_string(type));
  }
  return lines;
}

const std::string separator(1, static_cast<char>(std::filesystem::path::preferred_separator));
const std::string folder = "home" + separator + "TavrinDSC" + separator + "Certificates";
const Lines lookedForFiles{"- CA Folder: " + folder,
                           "> getFilesWithExtensionsAndConvertDER " + folder + " .cer.der.pem.crt null"};
const std::string leafImport = "- Chain import skipped or failed \xE2\x80\x94 Performing normal leaf import";
const std::string oneImported = "- Certificate imported successfully";
const std::string leaf = "CN=Leaf,O=X|CN=Inter|01";
const std::string inter = "O=X,CN=Inter|C=IN,CN=Root|02";
const std::string root = "CN=Root,C=IN|CN=Root,C=IN|03";
const std::vector<std::pair<int, CK_RV>> importFailures = {
    {40, CKR_DEVICE_MEMORY}, {242, CKR_DEVICE_MEMORY}, {41, CKR_FUNCTION_FAILED}, {-1, CKR_FUNCTION_FAILED}};

TEST_F(ObjectCreationTest, CreateRefusals) {
  CK_ATTRIBUTE attribute{CKA_CLASS, nullptr, 0};
  const std::string key = number(CKO_PRIVATE_KEY);
  const Lines invalid{"Invalid input parameters for import RSA key"};
  bad(CALL(C_CreateObject, session_, nullptr, 0, nullptr), ": pTemplate is NULL");
  bad(CALL(C_CreateObject, session_, &attribute, 0, nullptr), ": ulCount<=0");
  bad(CALL(C_CreateObject, session_, &attribute, 1, nullptr), ": phObject is NULL");
  expect(create({{CKA_CLASS, number(CKO_PUBLIC_KEY)}}), CKR_FUNCTION_NOT_SUPPORTED,
         seen({CKA_CLASS}) + Lines{"Provided object class not supported : 2"});
  fails(create({{CKA_CLASS, key}, {CKA_KEY_TYPE, number(CKK_EC)}}),
        seen({CKA_CLASS, CKA_KEY_TYPE}) + Lines{"ECC keypair not supported for import"});
  fails(create({{CKA_CLASS, key}, {CKA_PRIVATE_EXPONENT, "d"}, {CKA_PRIME_1, "p"}}),
        seen({CKA_CLASS, CKA_PRIVATE_EXPONENT, CKA_PRIME_1}) + invalid);
  fails(create({{CKA_CLASS, key}, {CKA_MODULUS, "n"}, {CKA_PRIVATE_EXPONENT, ""}, {CKA_PRIME_1, "p"}}),
        seen({CKA_CLASS, CKA_MODULUS, CKA_PRIME_1}) + invalid);
  fails(create({{CKA_CLASS, key}, {CKA_MODULUS, "n"}, {CKA_PRIVATE_EXPONENT, "d"}, {CKA_PRIME_2, "q"}}),
        seen({CKA_CLASS, CKA_MODULUS, CKA_PRIVATE_EXPONENT, CKA_PRIME_2}) + invalid);
  fails(create({{CKA_LABEL, "x"}, {CKA_VALUE, Template::nothing}}),
        seen({CKA_LABEL}) + Lines{"Certificate data not available in create object"});
  expect(create({{CKA_VALUE, std::string(3073, 'x')}}), CKR_DATA_LEN_RANGE,
         seen({CKA_VALUE}) + Lines{": certificate too long, ulValueLen=3073"});
  expect(create({{CKA_VALUE, "no certificate"}}), CKR_DATA_INVALID,
         seen({CKA_VALUE}) + Lines{parsed("no certificate"), "- certificate parsing failed"});
  EXPECT_EQ(created_, 77u);
}

TEST_F(ObjectCreationTest, PrivateKeyImport) {
  const Call import = create({{CKA_CLASS, "\3"},  // shorter than its type: the rest is zero
                              {CKA_LABEL, "label"},
                              {CKA_ID, "id"},
                              {CKA_VALUE, "v"},
                              {CKA_MODULUS, "n"},
                              {CKA_PUBLIC_EXPONENT, "e"},
                              {CKA_PRIVATE_EXPONENT, "d"},
                              {CKA_PRIME_1, "p"},
                              {CKA_PRIME_2, "q"},
                              {CKA_EXPONENT_1, "x"},
                              {CKA_EXPONENT_2, "y"},
                              {CKA_COEFFICIENT, "c"}});
  const Lines asked =
      seen({CKA_CLASS, CKA_LABEL, CKA_ID, CKA_VALUE, CKA_MODULUS, CKA_PUBLIC_EXPONENT, CKA_PRIVATE_EXPONENT,
            CKA_PRIME_1, CKA_PRIME_2, CKA_EXPONENT_1, CKA_EXPONENT_2, CKA_COEFFICIENT}) +
      Lines{
          "> importPfx TK1 pin='1234' label='label' type=2 value='v' n='n' e='' d='d' p='p' q='' dp='' dq='' qi='' "
          "inst"};
  does(import, asked + Lines{keysListed});
  EXPECT_EQ(created_, 0x70000020u);
  created_ = 77;
  fake::fault("importPfx", fake::Fault::Kind::nothing);
  does(import, asked + Lines{keysListed});
  EXPECT_EQ(created_, 77u);  // no record is the new one
  for (const auto& [status, code] : importFailures) {
    fake::fail("importPfx", status);
    expect(import, code, asked + Lines{"Import private key into device failed : " + std::to_string(status)});
  }
  EXPECT_EQ(created_, 77u);
}

TEST_F(ObjectCreationTest, CertificateWithoutCaFilesIsImportedAlone) {
  const Call import = create({{CKA_LABEL, std::string(150, 'l')}, {CKA_VALUE, leaf}, {CKA_ID, std::string(200, 'i')}});
  const Lines asked = seen({CKA_LABEL, CKA_VALUE, CKA_ID}) + Lines{parsed(leaf)} + lookedForFiles +
                      Lines{leafImport, imported(std::string(128, 'l'), std::string(128, 'i'), leaf)};
  does(import, asked + Lines{certificatesListed});
  EXPECT_EQ(created_, 0x70002020u);
  created_ = 77;
  for (const auto& [status, code] : importFailures) {
    fake::fail("importCertificate", status);
    expect(import, code, asked + Lines{"Leaf import failed: " + std::to_string(status)});
  }
  EXPECT_EQ(created_, 77u);
  ok(create({{CKA_VALUE, std::string(3069, 'x') + "||1"}}));  // as long as a record holds
}

TEST_F(ObjectCreationTest, ChainIsImportedRootFirst) {
  setFiles({"unparsable", root, "", std::string(3073, '|'), inter});
  const Call import = create({{CKA_VALUE, leaf}, {CKA_LABEL, "mine"}});
  const Lines asked = seen({CKA_VALUE, CKA_LABEL}) + Lines{parsed(leaf)} + lookedForFiles +
                      Lines{parsed("unparsable"),       parsed(root), parsed(inter),
                            imported("Root", "", root), oneImported,  imported("Inter", "", inter)};
  does(import, asked + Lines{oneImported, imported("mine", "", leaf), oneImported, certificatesListed});
  EXPECT_EQ(created_, 0x70002022u);
  created_ = 77;
  for (const auto& [status, code] : importFailures) {
    fake::fail("importCertificate", status, 2);
    expect(import, code, asked + Lines{"Leaf import failed: " + std::to_string(status)});
  }
  EXPECT_EQ(created_, 77u);
}

TEST_F(ObjectCreationTest, ChainsFollowTheCommonNames) {
  auto missing = [](const std::string& name) {
    return "- Issuer '" + name + "' NOT found \xE2\x80\x94 skipping chain import";
  };
  const std::string longName(150, 'n');
  const std::string longFile = "CN=" + longName + "|" + longName + "|1";
  struct Row {
    const char* name;
    Lines files;
    std::string certificate;
    Lines done;  // but for the import of the certificate itself
  };
  const std::vector<Row> rows = {
      {"no CA of the issuer's name", {root}, leaf, {missing("Inter"), leafImport}},
      {"an incomplete chain", {inter}, leaf, {missing("Root"), leafImport}},
      {"a circle", {"CN=Inter|CN=Other|1", "CN=Other|CN=Inter|2"}, leaf, {missing("Inter"), leafImport}},
      {"no issuer name", {root}, "CN=Leaf||1", {}},
      {"names without a common name", {"ca|ca|2"}, "user|ca|1", {imported("ca", "", "ca|ca|2"), oneImported}},
      {"the first common name of several, wherever it begins",
       {"CN=B|CN=B|2", "CN=A|CN=A|3"},
       "CN=Leaf|OU=XCN=A,CN=B|1",
       {imported("A", "", "CN=A|CN=A|3"), oneImported}},
      {"two files of one name: the first one's certificate, the last one's issuer",
       {"CN=Inter|CN=None|1", "CN=Inter|CN=Inter|2"},
       leaf,
       {imported("Inter", "", "CN=Inter|CN=None|1"), oneImported}},
      {"a name longer than a label",
       {longFile},
       "CN=Leaf|CN=" + longName + "|1",
       {imported(longName.substr(0, 128), "", longFile), oneImported}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    setFiles(row.files);
    Lines lines = seen({CKA_VALUE}) + Lines{parsed(row.certificate)} + lookedForFiles;
    for (const std::string& file : row.files) lines.push_back(parsed(file));
    lines = lines + row.done + Lines{imported("", "", row.certificate)};
    if (row.done.empty() || row.done.back() == oneImported) lines.push_back(oneImported);
    does(create({{CKA_VALUE, row.certificate}}), lines + Lines{certificatesListed});
  }
}

TEST_F(ObjectCreationTest, WithoutHomeCaFilesAreLookedForBesideTheProgram) {
  for (const char* const home : {static_cast<const char*>(nullptr), ""}) {
    testPlatform::setEnvironment("TAVRIN_HOME", home);
    const Lines lines = run(create({{CKA_VALUE, leaf}}));
    EXPECT_EQ(lines[3], "- TAVRIN_HOME not set \xE2\x80\x94 Using Windows defaults");
    EXPECT_EQ(lines[4], "- CA Folder: " + testPlatform::programFolder() + folder.substr(4));
  }
}

TEST_F(ObjectCreationTest, DestroyRefusals) {
  const CK_SESSION_HANDLE session = open(readWrite);
  const CK_OBJECT_HANDLE secret = derive(session, "x");
  const std::string keyMissing = "- Input keypair not found in destroy : ";
  const std::string certificateMissing = "- Input certificate not found in destroy : ";
  expect(CALL(C_DestroyObject, session_, 0), CKR_SESSION_READ_ONLY, {"- Delete session state invalid : 1"});
  const std::pair<CK_OBJECT_HANDLE, Lines> rows[] = {
      {0x6FFFFFFF, {}},
      {rsaPublic, {}},
      {0x70001FFF, {}},
      {0x70000FFF, {keysListed, keyMissing + "1879052287"}},
      {0x70002FFF, {certificatesListed, certificateMissing + "1879060479"}},
      {secret, {certificatesListed, certificateMissing + std::to_string(secret)}}};
  for (const auto& [object, lines] : rows) {
    const CK_OBJECT_HANDLE handle = object;
    noObject(CALL(C_DestroyObject, session, handle), Lines{"- Delete key pair id : " + std::to_string(object)} + lines +
                                                         Lines{": invalid hObject=" + std::to_string(object)});
  }
  ok(C_Logout(session));
  expect(CALL(C_DestroyObject, session_, 0), CKR_SESSION_READ_ONLY, {"- Delete session state invalid : 0"});
}

TEST_F(ObjectCreationTest, DestroyDeletesKeyPairsAndCertificates) {
  fake::edit()->devices[0].keyPairs[1].deviceFlag = 0xFFFFFF00;  // of which the first byte counts
  fake::edit()->devices[0].certificates.push_back(fake::certificate(0, "zero", "zero"));
  const CK_SESSION_HANDLE session = open(readWrite);
  struct Row {
    CK_OBJECT_HANDLE object;
    const char* kind;
    const char* operation;
    std::string arguments;
  };
  for (const Row& row : {Row{rsaPrivate, "keypair", "deleteKeyPair", "key-1 pin='1234' flag=1"},
                         Row{ecPrivate, "keypair", "deleteKeyPair", "key-2 pin='1234' flag=0"},
                         Row{certificate1, "certificate", "deleteCertificate", "crt-1 pin='1234'"},
                         Row{0x70002000, "certificate", "deleteCertificate", "crt-0 pin='1234'"}}) {
    const Lines lines{"- Delete key pair id : " + std::to_string(row.object),
                      row.object < 0x70002000 ? keysListed : certificatesListed,
                      std::string("> ") + row.operation + " TK1 " + row.arguments + " inst"};
    const Call destroy = CALL(C_DestroyObject, session, row.object);
    fake::fail(row.operation, -9);
    fails(destroy, lines + Lines{std::string("Delete ") + row.kind + " in destroy object failed : -9"});
    does(destroy, lines);
    EXPECT_EQ(destroy.make(), CKR_OBJECT_HANDLE_INVALID);
  }
}

}  // namespace
