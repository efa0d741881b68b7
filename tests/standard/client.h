// The tables of tests/standard: each row is a call on the Cryptoki library under test and the code that PKCS#11 v2.40
// demands. The same rows run on SoftHSM2 as a check; where its result differs, the row says why.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "standard/cryptoki.h"

extern CK_FUNCTION_LIST* f;  // of the library that E2E_MODULE names
bool isSoftHsm();            // whether that is SoftHSM2: STANDARD_PEER is set

// The codes that a row may end with: more than one where the standard leaves the choice.
struct Expected {
  Expected(CK_RV code) : codes{code} {}
  Expected(std::initializer_list<CK_RV> several) : codes(several) {}
  std::vector<CK_RV> codes;
  const char* why = "";
};
// SoftHSM2 ends with another code than the standard's; `why` says for what reason.
Expected differs(Expected standard, CK_RV softHsm, const char* why);

// Reasons that many rows have.
inline constexpr char byOpenSsl[] = "its code for all that OpenSSL refuses", unlooked[] = "it does not look";
Expected noSuchKey();  // at Init calls

// One row. False, and the test fails, when the code is another one.
bool is(CK_RV code, const Expected& expected, const std::string& note = "", int line = __builtin_LINE(),
        const char* file = __builtin_FILE());

// Rows with the same code: the call is made with each of the arguments.
template <class Argument, class Call>
void each(const Expected& expected, std::initializer_list<Argument> arguments, Call call, int line = __builtin_LINE(),
          const char* file = __builtin_FILE()) {
  for (const Argument& one : arguments) {
    is(call(one), expected, "row " + std::to_string(&one - arguments.begin()), line, file);
  }
}

// Rows whose calls have been made.
inline void all(const Expected& expected, std::initializer_list<CK_RV> codes, int line = __builtin_LINE(),
                const char* file = __builtin_FILE()) {
  each(
      expected, codes, [](CK_RV code) { return code; }, line, file);
}

// A boolean, a number or bytes, by the type of the second argument.
struct Attribute {
  template <class T>
  Attribute(CK_ATTRIBUTE_TYPE attributeType, const T& given) : type(attributeType) {
    if constexpr (std::is_same_v<T, bool>) {
      value.assign(1, given ? '\1' : '\0');
    } else if constexpr (std::is_integral_v<T>) {
      const auto number = static_cast<CK_ULONG>(given);
      value.assign(reinterpret_cast<const char*>(&number), sizeof number);
    } else {
      value = given;
    }
  }
  CK_ATTRIBUTE_TYPE type;
  std::string value;
};

class Template {
 public:
  Template(std::initializer_list<Attribute> attributes) : values_(attributes) {}
  Template without(CK_ATTRIBUTE_TYPE type) const {
    Template result = *this;
    std::erase_if(result.values_, [type](const Attribute& one) { return one.type == type; });
    return result;
  }
  // With these attributes too; those it has already get the new value.
  Template with(const Template& more) const {
    Template result = *this;
    for (const Attribute& one : more.values_) (result = result.without(one.type)).values_.push_back(one);
    return result;
  }
  const std::vector<Attribute>& values() const { return values_; }
  CK_ATTRIBUTE* data() {        // as long as this lives
    attributes_.assign(1, {});  // not even an empty template is a null pointer
    attributes_.clear();
    for (Attribute& one : values_)
      attributes_.push_back({one.type, one.value.data(), static_cast<CK_ULONG>(one.value.size())});
    return attributes_.data();
  }
  CK_ULONG size() const { return static_cast<CK_ULONG>(values_.size()); }

 private:
  std::vector<Attribute> values_;
  std::vector<CK_ATTRIBUTE> attributes_{};
};

// A mechanism with its parameter.
struct Mechanism {
  Mechanism(CK_MECHANISM_TYPE mechanismType) : type(mechanismType) {}
  template <class Parameters>
  Mechanism(CK_MECHANISM_TYPE mechanismType, const Parameters& parameters)
      : type(mechanismType), parameter(reinterpret_cast<const char*>(&parameters), sizeof parameters) {}
  CK_MECHANISM get() {
    return {type, parameter.empty() ? nullptr : parameter.data(), static_cast<CK_ULONG>(parameter.size())};
  }
  CK_MECHANISM_TYPE type;
  std::string parameter{};
};
inline Mechanism pss(CK_MECHANISM_TYPE type, CK_MECHANISM_TYPE hash, CK_RSA_PKCS_MGF_TYPE mgf, CK_ULONG salt) {
  return {type, CK_RSA_PKCS_PSS_PARAMS{hash, mgf, salt}};
}
inline Mechanism oaep(CK_MECHANISM_TYPE hash, CK_RSA_PKCS_MGF_TYPE mgf) {
  return {CKM_RSA_PKCS_OAEP, CK_RSA_PKCS_OAEP_PARAMS{hash, mgf, CKZ_DATA_SPECIFIED, nullptr, 0}};
}
inline CK_BYTE* bytesOf(const std::string& text) { return reinterpret_cast<CK_BYTE*>(const_cast<char*>(text.data())); }
inline CK_ULONG lengthOf(const std::string& text) { return static_cast<CK_ULONG>(text.size()); }

enum Operation { digest, sign, verify, encrypt, decrypt };
// The library's functions for an operation. Those that take no result, or a mechanism alone, are null.
struct Functions {
  CK_C_SignInit init;
  CK_C_Sign once;
  CK_C_SignUpdate update;
  CK_C_SignFinal final;
};
Functions functionsOf(Operation operation);

// The calls of one session with their usual arguments. Nothing closes it; the fixture finalises the library.
class Session {
 public:
  // Open on token 0 or 1.
  explicit Session(CK_FLAGS flags = CKF_RW_SESSION, int token = 0);
  operator CK_SESSION_HANDLE() const { return handle; }

  CK_RV login(CK_USER_TYPE user = CKU_USER, const std::string& pin = pinOf(CKU_USER)) const {
    return f->C_Login(handle, user, bytesOf(pin), lengthOf(pin));
  }
  CK_STATE state() const;

  // Results of the calls below. Memory beyond `room` must stay as it was, or the test fails.
  std::string out;
  CK_ULONG length = 0;
  CK_OBJECT_HANDLE made = 0, madePublic = 0;

  CK_RV init(Operation operation, Mechanism mechanism, CK_OBJECT_HANDLE key = 0) const;
  CK_RV once(Operation operation, const std::string& data);  // not for verification
  CK_RV check(const std::string& data, const std::string& signature) const {
    return f->C_Verify(handle, bytesOf(data), lengthOf(data), bytesOf(signature), lengthOf(signature));
  }
  CK_RV update(Operation operation, const std::string& data);
  CK_RV final(Operation operation);  // for verification `out` is the signature
  // The whole operation, in one call or in pieces of so many bytes: the first code that is not CKR_OK. For verification
  // `out` is the signature.
  CK_RV run(Operation operation, const Mechanism& mechanism, CK_OBJECT_HANDLE key, const std::string& data,
            std::size_t piece = 0);
  // Whether the operation is active, found out by ending it.
  bool isActive(Operation operation);

  std::vector<CK_OBJECT_HANDLE> find(Template wanted) const;
  CK_RV get(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, CK_ULONG room = 1024);
  // Empty when it cannot be read.
  std::string value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) { return get(object, type) == CKR_OK ? out : ""; }
  CK_RV set(CK_OBJECT_HANDLE object, Template changed) const {
    return f->C_SetAttributeValue(handle, object, changed.data(), changed.size());
  }
  CK_RV create(Template object) { return f->C_CreateObject(handle, object.data(), object.size(), &(made = 0)); }
  CK_RV copy(CK_OBJECT_HANDLE object, Template changed) {
    return f->C_CopyObject(handle, object, changed.data(), changed.size(), &(made = 0));
  }
  CK_RV destroy(CK_OBJECT_HANDLE object) const { return f->C_DestroyObject(handle, object); }
  CK_RV generate(CK_MECHANISM_TYPE type, Template first, Template second) {
    CK_MECHANISM mechanism{type, nullptr, 0};
    return f->C_GenerateKeyPair(handle, &mechanism, first.data(), first.size(), second.data(), second.size(),
                                &(madePublic = 0), &(made = 0));
  }
  CK_RV derive(CK_OBJECT_HANDLE key, Mechanism mechanism, Template secret) {
    CK_MECHANISM given = mechanism.get();
    return f->C_DeriveKey(handle, &given, key, secret.data(), secret.size(), &(made = 0));
  }

  static std::string pinOf(CK_USER_TYPE user);

  CK_SESSION_HANDLE handle = 0;

 private:
  template <class Call>
  CK_RV into(CK_ULONG room, Call call);
};

// The slots of the tokens that the script made.
CK_SLOT_ID slotOf(int token);
std::string fileNamed(const char* name);

// Whether the signature is right by libgcrypt. The key is a modulus or a CKA_EC_POINT, the hash the bare digest of what
// was signed: its length gives the algorithm.
bool verifies(const std::string& key, const std::string& hash, const std::string& signature, bool pss = false);
std::string hashed(CK_MECHANISM_TYPE hash, const std::string& data);

extern const std::string p256, p384, p521;  // CKA_EC_PARAMS
extern const std::string exponent;          // 65537

// The library initialised, and finalised in the end.
class StandardTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

// The same with a user's read-write session and two key pairs on the token, which are made when first needed.
class KeysTest : public StandardTest {
 protected:
  void SetUp() override;
  std::optional<Session> owner_;
  CK_OBJECT_HANDLE rsa_ = 0, rsaPublic_ = 0, ec_ = 0, ecPublic_ = 0;
};
