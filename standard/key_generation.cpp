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

void checkCurve(ByteView curve) {
  const bool isOfToken = std::ranges::any_of(keyTypes, [&](const KeyTypeInfo& row) {
    return row.algorithm == KeyAlgorithm::ec && std::ranges::equal(row.curve, curve);
  });
  if (isOfToken) return;
  constexpr std::uint8_t objectIdentifier = 0x06;
  const bool isName = curve.front() == objectIdentifier;
  throw Refusal(isName ? CKR_CURVE_NOT_SUPPORTED : CKR_DOMAIN_PARAMS_INVALID, "not a curve of the token");
}

// Both halves of a pair have one usage. Without any attribute for it, the key has all uses of its type.
void readUsage(Attributes& request, bool isRsa, const Template& publicPart, const Template& privatePart) {
  // The attribute of the public half counts only where the private template lacks its own.
  const auto wantedUse = [&](CK_ATTRIBUTE_TYPE privateUse, CK_ATTRIBUTE_TYPE publicUse, bool otherwise) {
    const bool opened = publicPart.flag(publicUse).value_or(otherwise);
    const bool wanted = privatePart.flag(privateUse).value_or(opened);
    if (!wanted && publicPart.flag(publicUse).value_or(false)) {
      throw Refusal(CKR_TEMPLATE_INCONSISTENT, "the private key lacks the use of type=", publicUse);
    }
    return wanted;
  };
  const CK_ATTRIBUTE_TYPE secondUse = isRsa ? CKA_DECRYPT : CKA_DERIVE;
  const CK_ATTRIBUTE_TYPE secondPublicUse = isRsa ? CKA_ENCRYPT : CKA_DERIVE;
  const bool anyWanted = privatePart.flag(CKA_SIGN).value_or(false) || publicPart.flag(CKA_VERIFY).value_or(false) ||
                         privatePart.flag(secondUse).value_or(false) ||
                         publicPart.flag(secondPublicUse).value_or(false);
  const bool wantsSign = wantedUse(CKA_SIGN, CKA_VERIFY, !anyWanted);
  const bool wantsDecrypt = wantedUse(secondUse, secondPublicUse, !anyWanted);
  if (!wantsSign && !wantsDecrypt) throw Refusal(CKR_TEMPLATE_INCONSISTENT, "the key would have no use");
  request.setFlag(CKA_SIGN, wantsSign);
  request.setFlag(CKA_DECRYPT, wantsDecrypt);
}

// The template that the module receives for the private half. CKA_WRAP, CKA_UNWRAP and the recovering uses are
// accepted, because many applications set all uses, and are false. CKA_SENSITIVE and CKA_EXTRACTABLE are accepted with
// any value: the key is protected in any case.
Attributes readTemplates(const Mechanism& mechanism, const Template& publicPart, const Template& privatePart) {
  publicPart.mustBeOf(newPublicKey);
  privatePart.mustBeOf(newPrivateKey);
  publicPart.mustNotContradict(CKA_CLASS, CK_ULONG{CKO_PUBLIC_KEY});
  privatePart.mustNotContradict(CKA_CLASS, CK_ULONG{CKO_PRIVATE_KEY});
  for (const Template* half : {&publicPart, &privatePart}) {
    half->mustNotContradict(CKA_KEY_TYPE, mechanism.keyType);
    checkLabelAndId(*half);
  }
  if (mechanism.keyType == CKK_RSA) {
    checkRsaKey(publicPart, publicPart.requiredNumber(CKA_MODULUS_BITS));
  } else {
    checkCurve(publicPart.required(CKA_EC_PARAMS));
  }
  publicPart.mustNotContradict(CKA_PRIVATE, false);
  publicPart.mustNotContradict(CKA_TRUSTED, false);
  privatePart.mustNotContradict(CKA_PRIVATE, true);
  privatePart.mustNotContradict(CKA_ALWAYS_AUTHENTICATE, false);
  privatePart.mustNotContradict(CKA_WRAP_WITH_TRUSTED, false);
  Attributes request;
  request.setNumber(CKA_KEY_TYPE, mechanism.keyType);
  readUsage(request, mechanism.keyType == CKK_RSA, publicPart, privatePart);
  for (const CK_ATTRIBUTE_TYPE type : {CKA_LABEL, CKA_ID}) {
    const ByteView own = privatePart.bytes(type).value_or(ByteView{});
    request.set(type, own.empty() ? publicPart.bytes(type).value_or(own) : own);
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
CK_OBJECT_HANDLE generate(State& state, Token& token, CK_MECHANISM mechanism, CK_ATTRIBUTE parameters,
                          Attributes& request) {
  std::vector<CK_ATTRIBUTE> key = request.asTemplate();
  ModuleSession own(state, token);
  CK_OBJECT_HANDLE publicHandle = 0;
  CK_OBJECT_HANDLE privateHandle = 0;
  CK_RV code = CKR_OK;
  {
    const Generation generation(state, token);
    code = state.module->C_GenerateKeyPair(own.handle(), &mechanism, &parameters, 1, key.data(),
                                           static_cast<CK_ULONG>(key.size()), &publicHandle, &privateHandle);
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
    const Template publicPart(pPublicKeyTemplate, ulPublicKeyAttributeCount);
    const Template privatePart(pPrivateKeyTemplate, ulPrivateKeyAttributeCount);
    const Mechanism& mechanism = requiredMechanism(given.mechanism, CKF_GENERATE_KEY_PAIR, session.token);
    requireNoParameter(given);
    Attributes request = readTemplates(mechanism, publicPart, privatePart);
    // Both halves are stored as one pair. It is a token object if either template has CKA_TOKEN true.
    const bool onToken = publicPart.flag(CKA_TOKEN).value_or(false) || privatePart.flag(CKA_TOKEN).value_or(false);
    if (onToken && !session.readWrite) return call.refuse(CKR_SESSION_READ_ONLY, "the session is read-only");
    if (session.token.login != Login::user) return call.refuse(CKR_USER_NOT_LOGGED_IN, "the user is not logged in");

    const CK_ATTRIBUTE& size = *publicPart.find(mechanism.keyType == CKK_RSA ? CKA_MODULUS_BITS : CKA_EC_PARAMS);
    const CK_OBJECT_HANDLE made = generate(state, session.token, {given.mechanism, nullptr, 0}, size, request);
    ModuleLock module(state);
    const KeyPairObjects pair = addKeyPair(module, session.token, made, onToken ? 0 : session.handle, false);
    readAttributes(module, *pair.publicKey);
    *phPublicKey = pair.publicKey->handle;
    *phPrivateKey = pair.privateKey->handle;
    return CKR_OK;
  });
}
