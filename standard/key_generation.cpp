// C_GenerateKeyPair.
#include <algorithm>
#include <iterator>

#include "devlib/device_constants.h"
#include "standard/call_frames.h"
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

// The template that the module receives for the private half. CKA_WRAP, CKA_UNWRAP, the recovering uses, CKA_SENSITIVE
// and CKA_EXTRACTABLE may have any value, because many applications set them. The key's own values do not change.
Attributes readTemplates(const Mechanism& mechanism, const Template& publicPart, const Template& privatePart) {
  publicPart.mustBeOf(newPublicKey);
  privatePart.mustBeOf(newPrivateKey);
  publicPart.mustNotContradict(CKA_CLASS, CK_ULONG{CKO_PUBLIC_KEY});
  privatePart.mustNotContradict(CKA_CLASS, CK_ULONG{CKO_PRIVATE_KEY});
  for (const Template* half : {&publicPart, &privatePart}) {
    half->mustNotContradict(CKA_KEY_TYPE, mechanism.keyType);
    checkLabelAndId(*half);
  }
  const bool isRsa = mechanism.keyType == CKK_RSA;
  if (publicPart.find(isRsa ? CKA_EC_PARAMS : CKA_MODULUS_BITS)) {
    throw Refusal(CKR_TEMPLATE_INCONSISTENT, "parameters of another key type");
  }
  if (isRsa) {
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
  readUsage(request, isRsa, publicPart, privatePart);
  for (const CK_ATTRIBUTE_TYPE type : {CKA_LABEL, CKA_ID}) {
    const ByteView own = privatePart.bytes(type).value_or(ByteView{});
    request.set(type, own.empty() ? publicPart.bytes(type).value_or(own) : own);
  }
  return request;
}

// Without the module lock while the token works: other threads sign in the meantime. The key counts as being generated
// until both halves are in the table, so that a logout finds them.
KeyPairObjects generate(State& state, const Session& session, CK_MECHANISM mechanism, CK_ATTRIBUTE parameters,
                        Attributes& request, bool onToken) {
  Token& token = session.token;
  std::vector<CK_ATTRIBUTE> key = request.asTemplate();
  const ModuleSession own(state, token);
  {
    ModuleLock module(state);
    useLogin(module, token);
    ++state.generating;
  }
  CK_OBJECT_HANDLE publicHandle = 0;
  CK_OBJECT_HANDLE privateHandle = 0;
  const CK_RV code = state.module->C_GenerateKeyPair(own.handle(), &mechanism, &parameters, 1, key.data(),
                                                     static_cast<CK_ULONG>(key.size()), &publicHandle, &privateHandle);
  ModuleLock module(state);
  --state.generating;
  state.idle.notify_all();
  if (code != CKR_OK) throw moduleFailure(module, token, "C_GenerateKeyPair", code);
  session.requireAlive();
  KeyPairObjects pair = addKeyPair(module, token, publicHandle, onToken ? 0 : session.handle, false);
  readAttributes(module, *pair.publicKey);
  return pair;
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
    session.requireUser();

    const CK_ATTRIBUTE& size = *publicPart.find(mechanism.keyType == CKK_RSA ? CKA_MODULUS_BITS : CKA_EC_PARAMS);
    const KeyPairObjects pair = generate(state, session, {given.mechanism, nullptr, 0}, size, request, onToken);
    *phPublicKey = pair.publicKey->handle;
    *phPrivateKey = pair.privateKey->handle;
    return CKR_OK;
  });
}
