// C_GenerateKeyPair.
#include <algorithm>
#include <iterator>

#include "devlib/device_constants.h"
#include "standard/call.h"
#include "standard/object_changes.h"
#include "standard/output.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

// What is asked of the module. Its members point to each other.
struct Request {
  CK_KEY_TYPE keyType = 0;
  CK_ULONG bits = 0;
  SecretBytes curve;
  CK_BBOOL sign = CK_TRUE;
  CK_BBOOL decrypt = CK_TRUE;
  SecretBytes label;
  SecretBytes id;
};

SecretBytes copyOf(ByteView bytes) { return {bytes.begin(), bytes.end()}; }

bool isOpenKeyType(const KeyTypeInfo& row, const Request& request) {
  return request.keyType == CKK_RSA ? row.algorithm == KeyAlgorithm::rsa && row.bits == request.bits
                                    : row.algorithm == KeyAlgorithm::ec && std::ranges::equal(row.curve, request.curve);
}

void readRsaKey(Request& request, const Template& publicKey) {
  request.bits = publicKey.requiredNumber(CKA_MODULUS_BITS);
  ByteView exponent = publicKey.bytes(CKA_PUBLIC_EXPONENT).value_or(rsaPublicExponentBytes);
  while (!exponent.empty() && exponent.front() == 0) exponent = exponent.subspan(1);
  if (!std::ranges::equal(exponent, rsaPublicExponentBytes)) {
    throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "the token's public exponent is 65537");
  }
  if (std::ranges::none_of(keyTypes, [&](const KeyTypeInfo& row) { return isOpenKeyType(row, request); })) {
    throw Refusal(CKR_ATTRIBUTE_VALUE_INVALID, "no size of the token, CKA_MODULUS_BITS=", request.bits);
  }
}

void readEcKey(Request& request, const Template& publicKey) {
  request.curve = copyOf(publicKey.required(CKA_EC_PARAMS));
  if (std::ranges::any_of(keyTypes, [&](const KeyTypeInfo& row) { return isOpenKeyType(row, request); })) return;
  constexpr std::uint8_t objectIdentifier = 0x06;
  const bool isName = request.curve.front() == objectIdentifier;
  throw Refusal(isName ? CKR_CURVE_NOT_SUPPORTED : CKR_DOMAIN_PARAMS_INVALID, "not a curve of the token");
}

// A pair has one usage for both halves. Without any attribute for it the key may be used for all that its type can.
void readUsage(Request& request, const Template& publicKey, const Template& privateKey) {
  const bool isRsa = request.keyType == CKK_RSA;
  // Another use of the public half than of the private one counts only where the private half is silent.
  const auto wantedUse = [&](CK_ATTRIBUTE_TYPE privateUse, CK_ATTRIBUTE_TYPE publicUse, bool otherwise) {
    const bool opened = publicKey.flag(publicUse).value_or(otherwise);
    const bool wanted = privateKey.flag(privateUse).value_or(opened);
    if (!wanted && publicKey.flag(publicUse).value_or(false)) {
      throw Refusal(CKR_TEMPLATE_INCONSISTENT, "the private key lacks the use of type=", publicUse);
    }
    return wanted;
  };
  const CK_ATTRIBUTE_TYPE secondUse = isRsa ? CKA_DECRYPT : CKA_DERIVE;
  const CK_ATTRIBUTE_TYPE secondPublicUse = isRsa ? CKA_ENCRYPT : CKA_DERIVE;
  const bool anyWanted = privateKey.flag(CKA_SIGN).value_or(false) || publicKey.flag(CKA_VERIFY).value_or(false) ||
                         privateKey.flag(secondUse).value_or(false) || publicKey.flag(secondPublicUse).value_or(false);
  const bool wantsSign = wantedUse(CKA_SIGN, CKA_VERIFY, !anyWanted);
  const bool wantsDecrypt = wantedUse(secondUse, secondPublicUse, !anyWanted);
  if (!wantsSign && !wantsDecrypt) throw Refusal(CKR_TEMPLATE_INCONSISTENT, "the key would have no use");
  request.sign = wantsSign ? CK_TRUE : CK_FALSE;
  request.decrypt = wantsDecrypt ? CK_TRUE : CK_FALSE;
}

constexpr CK_ATTRIBUTE_TYPE publicTypes[] = {
    CKA_CLASS, CKA_TOKEN,   CKA_PRIVATE, CKA_LABEL,          CKA_MODIFIABLE,   CKA_COPYABLE,        CKA_DESTROYABLE,
    CKA_ID,    CKA_DERIVE,  CKA_SUBJECT, CKA_KEY_TYPE,       CKA_START_DATE,   CKA_END_DATE,        CKA_TRUSTED,
    CKA_WRAP,  CKA_ENCRYPT, CKA_VERIFY,  CKA_VERIFY_RECOVER, CKA_MODULUS_BITS, CKA_PUBLIC_EXPONENT, CKA_EC_PARAMS};
constexpr CK_ATTRIBUTE_TYPE privateTypes[] = {CKA_CLASS,
                                              CKA_TOKEN,
                                              CKA_PRIVATE,
                                              CKA_LABEL,
                                              CKA_MODIFIABLE,
                                              CKA_COPYABLE,
                                              CKA_DESTROYABLE,
                                              CKA_ID,
                                              CKA_DERIVE,
                                              CKA_SUBJECT,
                                              CKA_KEY_TYPE,
                                              CKA_START_DATE,
                                              CKA_END_DATE,
                                              CKA_SENSITIVE,
                                              CKA_SIGN,
                                              CKA_DECRYPT,
                                              CKA_SIGN_RECOVER,
                                              CKA_UNWRAP,
                                              CKA_EXTRACTABLE,
                                              CKA_WRAP_WITH_TRUSTED,
                                              CKA_ALWAYS_AUTHENTICATE};

// CKA_WRAP, CKA_UNWRAP and the recovering uses are accepted, as many applications ask for all uses, and are false.
Request readTemplates(const Mechanism& mechanism, const Template& publicKey, const Template& privateKey) {
  publicKey.mustBeOf(publicTypes);
  privateKey.mustBeOf(privateTypes);
  publicKey.mustNotContradict(CKA_CLASS, CK_ULONG{CKO_PUBLIC_KEY});
  privateKey.mustNotContradict(CKA_CLASS, CK_ULONG{CKO_PRIVATE_KEY});
  for (const Template* half : {&publicKey, &privateKey}) {
    half->mustNotContradict(CKA_KEY_TYPE, mechanism.keyType);
    checkLabelAndId(*half);
  }
  publicKey.mustNotContradict(CKA_PRIVATE, false);
  publicKey.mustNotContradict(CKA_TRUSTED, false);
  privateKey.mustNotContradict(CKA_PRIVATE, true);
  privateKey.mustNotContradict(CKA_SENSITIVE, true);
  privateKey.mustNotContradict(CKA_EXTRACTABLE, false);
  privateKey.mustNotContradict(CKA_ALWAYS_AUTHENTICATE, false);
  privateKey.mustNotContradict(CKA_WRAP_WITH_TRUSTED, false);
  Request request;
  request.keyType = mechanism.keyType;
  if (request.keyType == CKK_RSA) {
    readRsaKey(request, publicKey);
  } else {
    readEcKey(request, publicKey);
  }
  readUsage(request, publicKey, privateKey);
  for (const auto& [type, field] : {std::pair{CKA_LABEL, &request.label}, std::pair{CKA_ID, &request.id}}) {
    const ByteView other = publicKey.bytes(type).value_or(ByteView{});
    const ByteView own = privateKey.bytes(type).value_or(other);
    *field = copyOf(own.empty() ? other : own);
  }
  return request;
}

// Counts a key that is being generated, for as long as the login of the module must stay as it is.
class Generation {
 public:
  Generation(State& state, Token& token) : state_(state) {
    ModuleLock module(state);
    useLogin(module, token);
    ++state.generating;
  }
  ~Generation() {
    const std::lock_guard guard(state_.mutex);
    --state_.generating;
    state_.idle.notify_all();
  }
  Generation(const Generation&) = delete;
  Generation& operator=(const Generation&) = delete;

 private:
  State& state_;
};

// Without the module lock: other threads sign in the meantime.
CK_OBJECT_HANDLE generate(State& state, Token& token, Request& request) {
  CK_ATTRIBUTE parameters{CKA_MODULUS_BITS, &request.bits, sizeof request.bits};
  if (request.keyType == CKK_EC) {
    parameters = {CKA_EC_PARAMS, request.curve.data(), static_cast<CK_ULONG>(request.curve.size())};
  }
  CK_ATTRIBUTE key[] = {{CKA_KEY_TYPE, &request.keyType, sizeof request.keyType},
                        {CKA_SIGN, &request.sign, sizeof request.sign},
                        {CKA_DECRYPT, &request.decrypt, sizeof request.decrypt},
                        {CKA_LABEL, request.label.data(), static_cast<CK_ULONG>(request.label.size())},
                        {CKA_ID, request.id.data(), static_cast<CK_ULONG>(request.id.size())}};
  CK_MECHANISM mechanism{
      request.keyType == CKK_EC ? CK_MECHANISM_TYPE{CKM_EC_KEY_PAIR_GEN} : CK_MECHANISM_TYPE{CKM_RSA_PKCS_KEY_PAIR_GEN},
      nullptr, 0};
  ModuleSession own(state, token);
  CK_OBJECT_HANDLE publicHandle = 0;
  CK_OBJECT_HANDLE privateHandle = 0;
  CK_RV code = CKR_OK;
  {
    const Generation generation(state, token);
    code = state.module->C_GenerateKeyPair(own.handle(), &mechanism, &parameters, 1, key, std::size(key), &publicHandle,
                                           &privateHandle);
  }
  if (code != CKR_OK) throw moduleFailure(state, token, "C_GenerateKeyPair", code);
  return publicHandle;
}

}  // namespace

CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_ATTRIBUTE_PTR pPublicKeyTemplate,
                        CK_ULONG ulPublicKeyAttributeCount, CK_ATTRIBUTE_PTR pPrivateKeyTemplate,
                        CK_ULONG ulPrivateKeyAttributeCount, CK_OBJECT_HANDLE_PTR phPublicKey,
                        CK_OBJECT_HANDLE_PTR phPrivateKey) {
  return sessionCall("C_GenerateKeyPair", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    const CK_MECHANISM& given = requiredMechanism(pMechanism);
    if (!phPublicKey) return call.refuse(CKR_ARGUMENTS_BAD, "phPublicKey is NULL");
    if (!phPrivateKey) return call.refuse(CKR_ARGUMENTS_BAD, "phPrivateKey is NULL");
    const Template publicKey(pPublicKeyTemplate, ulPublicKeyAttributeCount);
    const Template privateKey(pPrivateKeyTemplate, ulPrivateKeyAttributeCount);
    const Mechanism& mechanism = requiredMechanism(given.mechanism, CKF_GENERATE_KEY_PAIR, session.token);
    requireNoParameter(given);
    Request request = readTemplates(mechanism, publicKey, privateKey);
    // The pair is one thing on the token: it stays when either half is to stay.
    const bool onToken = publicKey.flag(CKA_TOKEN).value_or(false) || privateKey.flag(CKA_TOKEN).value_or(false);
    if (onToken && !session.readWrite) return call.refuse(CKR_SESSION_READ_ONLY, "the session is read-only");
    if (session.token.login != Login::user) return call.refuse(CKR_USER_NOT_LOGGED_IN, "the user is not logged in");

    const CK_OBJECT_HANDLE made = generate(state, session.token, request);
    ModuleLock module(state);
    const KeyPairObjects pair = addKeyPair(module, session.token, made, onToken ? 0 : session.handle, false);
    readAttributes(module, *pair.publicKey);
    readAttributes(module, *pair.privateKey);
    *phPublicKey = pair.publicKey->handle;
    *phPrivateKey = pair.privateKey->handle;
    return CKR_OK;
  });
}
