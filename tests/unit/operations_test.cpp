// Which calls are accepted during which operation, and how results are returned.
#include "module_test.h"

namespace {

using OperationsTest = SessionTest;

// The operation is looked at before the arguments, and these from left to right. The random walk makes every call
// during every operation, and compares what is left of the operation.
TEST_F(OperationsTest, CallsWantTheirOperationAndThenTheirArguments) {
  const CK_SESSION_HANDLE s = session_;
  CK_BYTE data = 0;
  const std::pair<int, Call> search{1, CALL(C_FindObjectsInit, s, nullptr, 0)}, encrypt{2, encryptInit(s)},
      decrypt{3, decryptInit(s)}, digest{4, digestInit(s)}, sign{5, signInit(s, CKM_RSA_PKCS)},
      verify{7, verifyInit(s, CKM_RSA_PKCS)};
  const std::tuple<std::pair<int, Call>, Call, const char*> rows[] = {
      {search, CALL(C_FindObjects, s, nullptr, 0, nullptr), ": pulObjectCount is NULL"},
      {search, CALL(C_FindObjects, s, nullptr, 5, nullptr), ": phObject is NULL with ulMaxObjectCount=5"},
      {encrypt, CALL(C_Encrypt, s, DATA(""), nullptr, nullptr), ": pData is NULL or ulDataLen<=0, ulDataLen=0"},
      {encrypt, CALL(C_Encrypt, s, nullptr, 5, nullptr, nullptr), ": pData is NULL or ulDataLen<=0, ulDataLen=5"},
      {encrypt, CALL(C_Encrypt, s, DATA("x"), out_.data(), nullptr), ": pulEncryptedDataLen is NULL"},
      {decrypt, CALL(C_Decrypt, s, nullptr, 0, nullptr, nullptr), ": pEncryptedData is NULL"},
      {decrypt, CALL(C_Decrypt, s, DATA(""), nullptr, nullptr), ": ulEncryptedDataLen<=0, ulEncryptedDataLen=0"},
      {decrypt, CALL(C_Decrypt, s, DATA("x"), out_.data(), nullptr), ": pulDataLen is NULL"},
      {digest, CALL(C_Digest, s, DATA(""), nullptr, nullptr), ": pData is NULL or ulDataLen<=0, ulDataLen=0"},
      {digest, CALL(C_Digest, s, nullptr, 5, nullptr, nullptr), ": pData is NULL or ulDataLen<=0, ulDataLen=5"},
      {digest, CALL(C_Digest, s, DATA("x"), out_.data(), nullptr), ": pulDigestLen is NULL"},
      {digest, CALL(C_DigestUpdate, s, DATA("")), ": pPart is NULL or ulPartLen<=0, ulPartLen=0"},
      {digest, CALL(C_DigestUpdate, s, nullptr, 5), ": pPart is NULL or ulPartLen<=0, ulPartLen=5"},
      {digest, CALL(C_DigestFinal, s, nullptr, nullptr), ": pulDigestLen is NULL"},
      {sign, CALL(C_Sign, s, nullptr, 0, nullptr, nullptr), ": pData is NULL"},
      {sign, CALL(C_Sign, s, DATA(""), out_.data(), nullptr), ": ulDataLen<=0, ulDataLen=0"},
      {sign, CALL(C_Sign, s, DATA("x"), out_.data(), nullptr), ": pulSignatureLen is NULL"},
      {sign, CALL(C_SignUpdate, s, DATA("")), ": pPart is NULL or ulPartLen<=0, ulPartLen=0"},
      {sign, CALL(C_SignUpdate, s, nullptr, 5), ": pPart is NULL or ulPartLen<=0, ulPartLen=5"},
      {sign, CALL(C_SignFinal, s, nullptr, nullptr), ": pulSignatureLen is NULL"},
      {verify, CALL(C_Verify, s, nullptr, 0, nullptr, 0), ": pData or pSignature is NULL"},
      {verify, CALL(C_Verify, s, &data, 0, &data, 5),
       ": ulDataLen or ulSignatureLen <= 0, ulDataLen=0 ulSignatureLen=5"},
      {verify, CALL(C_Verify, s, &data, 5, &data, 0),
       ": ulDataLen or ulSignatureLen <= 0, ulDataLen=5 ulSignatureLen=0"},
      {verify, CALL(C_Verify, s, &data, 5, nullptr, 5), ": pData or pSignature is NULL"},
      {verify, CALL(C_VerifyFinal, s, DATA("")), ": pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=0"},
      {verify, CALL(C_VerifyUpdate, s, DATA("")), ": pPart is NULL or ulPartLen<=0, ulPartLen=0"},
      {verify, CALL(C_VerifyUpdate, s, nullptr, 5), ": pPart is NULL or ulPartLen<=0, ulPartLen=5"},
      {verify, CALL(C_VerifyFinal, s, nullptr, 8), ": pSignature is NULL or ulSignatureLen<=0, ulSignatureLen=8"}};
  for (const auto& [operation, call, missing] : rows) {
    expectNoOperation(call);
    ok(operation.second);
    bad(call, missing);
    EXPECT_TRUE(out_.isUntouched());
    endOperation(s);  // a search replaces any operation, and its end leaves none
  }
  expectNoOperation(CALL(C_FindObjectsFinal, s));
  const std::pair<Call, const char*> inits[] = {
      {CALL(C_DigestInit, s, nullptr), "C_DigestInit mechanism pointer in NULL"},
      {CALL(C_SignInit, s, nullptr, 0), ": pMechanism is NULL"},
      {CALL(C_VerifyInit, s, nullptr, 0), ": pMechanism is NULL"},
      {CALL(C_EncryptInit, s, nullptr, 0), ": pMechanism is NULL"},
      {CALL(C_DecryptInit, s, nullptr, 0), ": pMechanism is NULL"}};
  const auto duringDigest = [&](const Call& call) {
    return Call{"", [=, this] { return digestInit(s).make() == CKR_OK ? call.make() : CKR_GENERAL_ERROR; }};
  };
  for (const auto& [init, missing] : inits) {
    bad(init, missing);
    for (const auto& [number, begin] : {search,
                                        encrypt,
                                        decrypt,
                                        sign,
                                        verify,
                                        std::pair{9, duringDigest(encryptInit(s))},
                                        {10, duringDigest(decryptInit(s))}}) {
      ok(begin);
      expect(init, CKR_OPERATION_ACTIVE, {": operation already active, activeOperation=" + std::to_string(number)});
      endOperation(s);
    }
  }
}

// Each call breaks one rule, and rules that are looked at later too.
TEST_F(OperationsTest, InitRefusals) {
  setFirmware("1.9.9");
  CK_SESSION_HANDLE s = open();
  CK_BYTE byte = 0;
  auto noMechanism = [&](const Call& call, const Lines& lines) { expect(call, CKR_MECHANISM_INVALID, lines); };
  for (const CK_MECHANISM_TYPE type : {CKM_ECDSA_SHA512, CKM_ECDSA_SHA224, CKM_SHA224_RSA_PKCS, CKM_RSA_PKCS_OAEP}) {
    noMechanism(signInit(s, type, 0, &byte, 1), {": unsupported mechanism=" + std::to_string(type)});
    noMechanism(verifyInit(s, type, 0), {": unsupported mechanism=" + std::to_string(type)});
  }
  noMechanism(encryptInit(s, CKM_RSA_X_509, 0, &byte, 1), {": unsupported mechanism=3"});
  noMechanism(decryptInit(s, CKM_RSA_X_509, 0, &byte, 1), {": unsupported mechanism=3"});
  for (const auto& [parameter, length] : {std::pair{&byte, 0u}, {static_cast<CK_BYTE*>(nullptr), 1u}}) {
    auto noParameter = [&](const Call& call, const char* of) {
      expect(call, CKR_MECHANISM_PARAM_INVALID, {std::string(": mechanism param invalid for ") + of});
    };
    noParameter(signInit(s, CKM_SHA256_RSA_PKCS, 0, parameter, length), "mechanism=64");
    noParameter(encryptInit(s, CKM_RSA_PKCS, 0, parameter, length), "mechanism=1");
    noParameter(decryptInit(s, CKM_RSA_PKCS, 0, parameter, length), "CKM_RSA_PKCS");
  }
  const std::string noPss = ": CKM_RSA_PKCS_PSS not supported on firmware 1.9.9";
  noMechanism(signInit(s, CKM_SHA512_RSA_PKCS_PSS, 0, &byte, 1), {"- firmware veriosn :: 1.9.9", noPss});
  noMechanism(verifyInit(s, CKM_SHA384_RSA_PKCS_PSS), {keysListed, noPss});
  noMechanism(encryptInit(s, CKM_RSA_PKCS_OAEP, 0), {": CKM_RSA_PKCS_OAEP not supported on firmware 1.9.9"});
  noMechanism(decryptInit(s, CKM_RSA_PKCS_OAEP, 0), {"CKM_RSA_PKCS_OAEP not supported on firmware 1.9.9"});
  noObject(signInit(s, CKM_RSA_PKCS, 0x6FFFFFFF), {": invalid hKey=1879048191"});
  noObject(verifyInit(s, CKM_SHA384_RSA_PKCS_PSS, 0x6FFFFFFF), {": invalid hKey=1879048191"});
  noObject(encryptInit(s, CKM_RSA_PKCS, 0x6FFFFFFF), {": invalid hKey=1879048191"});
  noObject(decryptInit(s, CKM_RSA_PKCS, 0x6FFFFFFF), {": invalid hKey=1879048191 for CKM_RSA_PKCS"});
  auto unknown = [&](const Call& call, const char* line, CK_OBJECT_HANDLE key) {
    noObject(call, {keysListed, line + std::to_string(key)});
  };
  for (const CK_OBJECT_HANDLE key : {0x70000009u, 0x70001009u}) {
    unknown(signInit(s, CKM_RSA_PKCS, key), "Invalid input handle in sign : ", key);
    unknown(verifyInit(s, CKM_SHA384_RSA_PKCS_PSS, key), "Invalid input handle in verify : ", key);
    unknown(encryptInit(s, CKM_RSA_PKCS, key), "Invalid input handle in encrypt : ", key);
    unknown(decryptInit(s, CKM_RSA_PKCS, key), "Invalid input handle in decrypt : ", key);
  }
  unknown(signInit(s, CKM_RSA_PKCS, rsaPublic), "Invalid input handle in sign : ", rsaPublic);
  unknown(decryptInit(s, CKM_RSA_PKCS, rsaPublic), "Invalid input handle in decrypt : ", rsaPublic);
  setFirmware("2.0");
  s = open();
  noObject(encryptInit(s, CKM_RSA_PKCS_OAEP, rsaPrivate), {": invalid hKey=1879048193 for CKM_RSA_PKCS_OAEP"});
  noObject(decryptInit(s, CKM_RSA_PKCS_OAEP, 0x6FFFFFFF), {": invalid hKey=1879048191 for CKM_RSA_PKCS_OAEP"});
  unknown(encryptInit(s, CKM_RSA_PKCS_OAEP, 0x70001009), ": invalid input handle for OAEP encrypt : ", 0x70001009);
  unknown(decryptInit(s, CKM_RSA_PKCS_OAEP, rsaPublic), "Invalid input handle in decrypt OAEP : ", rsaPublic);
  expectNoOperation(CALL(C_SignUpdate, s, nullptr, 0));
  // OAEP and verification ignore a parameter, encryption and verification accept either half of a pair, and record
  // numbers have no upper bound.
  for (const Call& call :
       {encryptInit(s, CKM_RSA_PKCS_OAEP, rsaPublic, &byte, 1), encryptInit(s, CKM_RSA_PKCS, rsaPrivate),
        decryptInit(s, CKM_RSA_PKCS_OAEP, rsaPrivate, &byte, 1), verifyInit(s, CKM_RSA_PKCS, rsaPrivate, &byte, 1)}) {
    does(call, {keysListed});
    endOperation(s);
  }
  fake::edit()->devices[0].keyPairs[0].id = 0x1001;
  does(signInit(s, CKM_RSA_PKCS, rsaPublic), {keysListed});
  endOperation(s);
  does(verifyInit(s, CKM_RSA_PKCS, certificate1), {keysListed});
}

TEST_F(OperationsTest, LengthQueriesKeepTheResultForTheCallThatFetchesIt) {
  std::string data;
  CK_BYTE_PTR place = nullptr;
  const Call digest = CALL(C_Digest, session_, bytes(data.c_str()), 2, place, &out_.length);
  const Call digestEnd = CALL(C_DigestFinal, session_, place, &out_.length);
  const Call sign = CALL(C_Sign, session_, bytes(data.c_str()), 2, place, &out_.length);
  const Call signEnd = CALL(C_SignFinal, session_, place, &out_.length);
  const Call encrypt = CALL(C_Encrypt, session_, bytes(data.c_str()), 2, place, &out_.length);
  const Call decrypt = CALL(C_Decrypt, session_, bytes(data.c_str()), 2, place, &out_.length);
  // How the operation begins, the call, its result, and what every call logs, also when the result is there.
  const std::tuple<Call, Call, std::string, Lines> rows[] = {
      {digestInit(session_), digest, "H3(ab)", {"- C_Digest Success"}},
      {digestInit(session_), digestEnd, "H3()", {"- C_DigestFinal Success"}},
      {signInit(session_, CKM_RSA_PKCS), sign, "S(ab)", {"- sign echanism : 1"}},
      {signInit(session_, CKM_RSA_PKCS), signEnd, "S()", {}},
      {encryptInit(session_), encrypt, "E(ab)", {}},
      {decryptInit(session_), decrypt, "P(ab)", {}}};
  for (const auto& [begin, call, result, logged] : rows) {
    SCOPED_TRACE(call.name);
    auto query = [&, call = call, result = result](const char* given) {
      data = given;
      place = nullptr;
      ok(call);
      EXPECT_EQ(out_.length, result.size());
      place = out_.data();
    };
    ok(begin);
    query("ab");
    data = "cd";
    place = nullptr;
    does(call, logged);
    place = out_.data();
    out_.length = 0;  // the buffer's size does not matter
    does(call, logged);
    EXPECT_EQ(out_.text(), result);
    expectNoOperation(call);
    // A result that nobody fetched is not the next operation's.
    ok(begin);
    query("no");
    endOperation(session_);
    ok(begin);
    data = "ab";
    ok(call);
    EXPECT_EQ(out_.text(), result);
  }
}

}  // namespace
