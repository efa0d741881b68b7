// Import of certificates, with their chains, and of private keys; deletion of both.
#include <filesystem>

#include "module_test.h"
#include "platform/platform.h"
#include "test_platform.h"

namespace {

namespace fs = std::filesystem;

class ObjectCreationTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    session_ = openLoggedIn(readOnly);  // neither state nor login is checked
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
// The lines for a template: the types of its attributes that have a value.
Lines seen(const Template& attributes) {
  Lines lines;
  for (CK_ULONG i = 0; i < attributes.size(); ++i) {
    const CK_ATTRIBUTE& one = attributes.data()[i];
    if (one.pValue && one.ulValueLen > 0)
      lines.push_back("- C_CreateObject - attrip type : " + std::to_string(one.type));
  }
  return lines;
}

const std::string separator(1, static_cast<char>(fs::path::preferred_separator));
const std::string folder = "home" + separator + "TavrinDSC" + separator + "Certificates";
const Lines lookedForFiles{"- CA Folder: " + folder,
                           "> getFilesWithExtensionsAndConvertDER " + folder + " .cer.der.pem.crt null"};
const std::string leafImport = "- Chain import skipped or failed \xE2\x80\x94 Performing normal leaf import";
const std::string oneImported = "- Certificate imported successfully";
const std::string leaf = "CN=Leaf,O=X|CN=Inter|01";
const std::string inter = "O=X,CN=Inter|C=IN,CN=Root|02";
const std::string root = "CN=Root,C=IN|CN=Root,C=IN|03";

TEST_F(ObjectCreationTest, CreateRefusals) {
  CK_ATTRIBUTE attribute{CKA_CLASS, nullptr, 0};
  const std::string key = number(CKO_PRIVATE_KEY);
  const char* const lacksNumbers = "Invalid input parameters for import RSA key";
  bad(CALL(C_CreateObject, session_, nullptr, 0, nullptr), ": pTemplate is NULL");
  bad(CALL(C_CreateObject, session_, &attribute, 0, nullptr), ": ulCount<=0");
  bad(CALL(C_CreateObject, session_, &attribute, 1, nullptr), ": phObject is NULL");
  const std::pair<Template, const char*> failing[] = {
      {{{CKA_CLASS, key}, {CKA_KEY_TYPE, number(CKK_EC)}}, "ECC keypair not supported for import"},
      {{{CKA_CLASS, key}, {CKA_PRIVATE_EXPONENT, "d"}, {CKA_PRIME_1, "p"}}, lacksNumbers},
      {{{CKA_CLASS, key}, {CKA_MODULUS, "n"}, {CKA_PRIVATE_EXPONENT, ""}, {CKA_PRIME_1, "p"}}, lacksNumbers},
      {{{CKA_CLASS, key}, {CKA_MODULUS, "n"}, {CKA_PRIVATE_EXPONENT, "d"}, {CKA_PRIME_2, "q"}}, lacksNumbers},
      {{{CKA_LABEL, "x"}, {CKA_VALUE, Template::nothing}}, "Certificate data not available in create object"}};
  for (const auto& [attributes, logged] : failing) fails(create(attributes), seen(attributes) + Lines{logged});
  const std::tuple<Template, Lines, CK_RV> others[] = {
      {{{CKA_CLASS, number(2)}}, {"Provided object class not supported : 2"}, CKR_FUNCTION_NOT_SUPPORTED},
      {{{CKA_VALUE, std::string(3073, 'x')}}, {": certificate too long, ulValueLen=3073"}, CKR_DATA_LEN_RANGE},
      {{{CKA_VALUE, "none"}}, {parsed("none"), "- certificate parsing failed"}, CKR_DATA_INVALID}};
  for (const auto& [attributes, logged, code] : others) expect(create(attributes), code, seen(attributes) + logged);
  EXPECT_EQ(created_, 77u);
}

TEST_F(ObjectCreationTest, PrivateKeyImport) {
  // The class is shorter than its type: the rest is zero.
  const Template key{{CKA_CLASS, "\3"},
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
                     {CKA_COEFFICIENT, "c"}};
  const std::string asked = "> importPfx TK1 pin='1234' label='label' type=2 value='v' n='n' e='' d='d' p='p' ";
  const Lines lines = seen(key) + Lines{asked + "q='' dp='' dq='' qi='' inst", keysListed};
  does(create(key), lines);
  EXPECT_EQ(created_, 0x70000020u);
  created_ = 77;
  fake::fault("importPfx", fake::Fault::Kind::nothing);
  does(create(key), lines);
  EXPECT_EQ(created_, 77u);  // no record is the new one
}

TEST_F(ObjectCreationTest, CertificateWithoutCaFilesIsImportedAlone) {
  const Template all{{CKA_LABEL, std::string(150, 'l')}, {CKA_VALUE, leaf}, {CKA_ID, std::string(200, 'i')}};
  const std::string import = imported(std::string(128, 'l'), std::string(128, 'i'), leaf);
  does(create(all), seen(all) + Lines{parsed(leaf)} + lookedForFiles + Lines{leafImport, import, certificatesListed});
  EXPECT_EQ(created_, 0x70002020u);
  ok(create({{CKA_VALUE, std::string(3069, 'x') + "||1"}}));  // as long as a record holds
}

TEST_F(ObjectCreationTest, ChainsAreImportedRootFirstByTheirCommonNames) {
  const std::string longName(150, 'n');
  const std::string longFile = "CN=" + longName + "|" + longName + "|1";
  const std::string tooLong(3073, '|'), longest = "CN=Inter|CN=Inter|" + std::string(3072 - 18, '1');
  const std::string a = "CN=A|CN=A|3", b = "CN=B|CN=B|2", circle = "CN=Inter|CN=Other|1", orphan = "CN=Inter|CN=None|1";
  struct Row {
    const char* name;
    Lines files;
    std::string certificate;
    std::vector<std::pair<std::string, std::string>> chain;  // labels and certificates of the issuers
    std::string missing = {};  // the issuer that is not found, so that the certificate is imported alone
  };
  const std::vector<Row> rows = {
      {"files that are none", {"none", root, "", tooLong, inter}, leaf, {{"Root", root}, {"Inter", inter}}},
      {"a file as long as a record", {longest}, leaf, {{"Inter", longest}}},
      {"no CA of the issuer's name", {root}, leaf, {}, "Inter"},
      {"an incomplete chain", {inter}, leaf, {}, "Root"},
      {"a circle", {circle, "CN=Other|CN=Inter|2"}, leaf, {}, "Inter"},
      {"no issuer name", {root}, "CN=Leaf||1", {}},
      {"names without a common name", {"ca|ca|2"}, "user|ca|1", {{"ca", "ca|ca|2"}}},
      {"the first of several names, wherever it begins", {b, a}, "CN=Leaf|OU=XCN=A,CN=B|1", {{"A", a}}},
      {"two files of one name", {orphan, "CN=Inter|CN=Inter|2"}, leaf, {{"Inter", orphan}}},
      {"a long name", {longFile}, "CN=Leaf|CN=" + longName + "|1", {{longName.substr(0, 128), longFile}}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    setFiles(row.files);
    Lines lines = seen({{CKA_VALUE, "x"}}) + Lines{parsed(row.certificate)} + lookedForFiles;
    for (const std::string& file : row.files) {
      if (!file.empty() && file != tooLong) lines.push_back(parsed(file));
    }
    for (const auto& [label, der] : row.chain) lines = lines + Lines{imported(label, "", der), oneImported};
    const std::string import = imported("", "", row.certificate);
    if (row.missing.empty()) {
      lines = lines + Lines{import, oneImported};
    } else {
      lines = lines +
              Lines{"- Issuer '" + row.missing + "' NOT found \xE2\x80\x94 skipping chain import", leafImport, import};
    }
    does(create({{CKA_VALUE, row.certificate}}), lines + Lines{certificatesListed});
  }
  // Nothing follows the first import that fails.
  setFiles({root, inter});
  fake::fail("importCertificate", 41, 2);
  EXPECT_EQ(run(create({{CKA_VALUE, leaf}})).end()[-2], "Leaf import failed: 41");
}

TEST_F(ObjectCreationTest, WithoutHomeCaFilesAreLookedForBesideTheProgram) {
  for (const char* const home : {static_cast<const char*>(nullptr), ""}) {
    testPlatform::setEnvironment("TAVRIN_HOME", home);
    const Lines lines = run(create({{CKA_VALUE, leaf}}));
    EXPECT_EQ(lines[3], "- TAVRIN_HOME not set \xE2\x80\x94 Using Windows defaults");
    EXPECT_EQ(lines[4],
              "- CA Folder: " + fs::path(tavrin::platform::programPath()).parent_path().string() + folder.substr(4));
  }
  testPlatform::setEnvironment("TAVRIN_HOME", "home");
}

TEST_F(ObjectCreationTest, DestroyRefusals) {
  const CK_SESSION_HANDLE session = open(readWrite);
  const CK_OBJECT_HANDLE secret = derive(session, "x");
  const std::string none = "- Input keypair not found in destroy : 1879052287";
  const std::string noCertificate = "- Input certificate not found in destroy : ";
  expect(CALL(C_DestroyObject, session_, 0), CKR_SESSION_READ_ONLY, {"- Delete session state invalid : 1"});
  const std::string last = std::to_string(secret);
  const std::pair<CK_OBJECT_HANDLE, Lines> rows[] = {{0x6FFFFFFF, {}},
                                                     {rsaPublic, {}},
                                                     {0x70001FFF, {}},
                                                     {0x70000FFF, {keysListed, none}},
                                                     {0x70002FFF, {certificatesListed, noCertificate + "1879060479"}},
                                                     {secret, {certificatesListed, noCertificate + last}}};
  for (const auto& [object, lines] : rows) {
    const CK_OBJECT_HANDLE handle = object;
    const std::string shown = std::to_string(object);
    noObject(CALL(C_DestroyObject, session, handle),
             Lines{"- Delete key pair id : " + shown} + lines + Lines{": invalid hObject=" + shown});
  }
  ok(C_Logout(session));
  expect(CALL(C_DestroyObject, session_, 0), CKR_SESSION_READ_ONLY, {"- Delete session state invalid : 0"});
}

TEST_F(ObjectCreationTest, DestroyDeletesKeyPairsAndCertificates) {
  fake::edit()->devices[0].keyPairs[1].deviceFlag = 0xFFFFFF00;  // of which the first byte counts
  fake::edit()->devices[0].certificates.push_back(fake::certificate(0, "zero", "zero"));
  const CK_SESSION_HANDLE session = open(readWrite);
  const std::pair<CK_OBJECT_HANDLE, const char*> rows[] = {
      {rsaPrivate, "> deleteKeyPair TK1 key-1 pin='1234' flag=1 inst"},
      {ecPrivate, "> deleteKeyPair TK1 key-2 pin='1234' flag=0 inst"},
      {certificate1, "> deleteCertificate TK1 crt-1 pin='1234' inst"},
      {0x70002000, "> deleteCertificate TK1 crt-0 pin='1234' inst"}};
  for (const auto& [object, asked] : rows) {
    const CK_OBJECT_HANDLE handle = object;
    const Call destroy = CALL(C_DestroyObject, session, handle);
    does(destroy, {"- Delete key pair id : " + std::to_string(object),
                   object < 0x70002000 ? keysListed : certificatesListed, asked});
    EXPECT_EQ(destroy.make(), CKR_OBJECT_HANDLE_INVALID);
  }
}

}  // namespace
