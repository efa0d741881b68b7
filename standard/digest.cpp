// C_DigestInit, C_Digest, C_DigestUpdate, C_DigestKey and C_DigestFinal, and hashes for other operations.
#include "standard/call_frames.h"
#include "standard/output.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace tavrin::standard {

HashRun::HashRun(State& state, Token& token, const HashMechanism& hash)
    : hash_(hash), session_(std::make_unique<ModuleSession>(state, token)) {
  CK_MECHANISM mechanism{hash.type, nullptr, 0};
  const CK_RV code = state.module->C_DigestInit(session_->handle(), &mechanism);
  if (code == CKR_OK) return;
  session_->fail("C_DigestInit", code);
}

HashRun::~HashRun() {
  if (finished_ || session_->state().ending) return;
  std::uint8_t digest[64];
  CK_ULONG length = sizeof digest;
  if (session_->state().module->C_DigestFinal(session_->handle(), digest, &length) != CKR_OK) session_->spoil();
}

void HashRun::update(ByteView data) {
  inParts_ = true;
  for (; !data.empty(); data = data.subspan(std::min(longestPiece, data.size()))) {
    auto* bytes = const_cast<CK_BYTE_PTR>(data.data());
    const auto length = static_cast<CK_ULONG>(std::min(longestPiece, data.size()));
    const CK_RV code = session_->state().module->C_DigestUpdate(session_->handle(), bytes, length);
    if (code != CKR_OK) session_->fail("C_DigestUpdate", code);
  }
}

SecretBytes HashRun::finish() {
  SecretBytes digest(64);
  auto length = static_cast<CK_ULONG>(digest.size());
  finished_ = true;
  const CK_RV code = session_->state().module->C_DigestFinal(session_->handle(), digest.data(), &length);
  if (code != CKR_OK || length != hash_.length) session_->fail("C_DigestFinal", code);
  digest.resize(hash_.length);
  return digest;
}

}  // namespace tavrin::standard

CK_RV C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism) {
  return sessionCall("C_DigestInit", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    const CK_MECHANISM& mechanism = requiredMechanism(pMechanism);
    if (session.digest) return call.refuse(CKR_OPERATION_ACTIVE, "a digest is active");
    const HashMechanism* hash = findHash(mechanism.mechanism);
    if (!hash) return call.refuse(CKR_MECHANISM_INVALID, "unsupported mechanism=", CK_ULONG{mechanism.mechanism});
    requireNoParameter(mechanism);
    session.digest = std::make_unique<HashRun>(state, session.token, *hash);
    return CKR_OK;
  });
}

CK_RV C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pDigest,
               CK_ULONG_PTR pulDigestLen) {
  return sessionCall("C_Digest", hSession, [&](const Call& call, State&, Session& session) -> CK_RV {
    OperationEnd end(session.digest);
    if (!session.digest || session.digest->inParts()) return refuseNotInitialized(call);
    const ByteView data = requiredData(pData, ulDataLen);
    return end.deliver(call, session.digest->mechanism().length, pDigest, requiredLength(pulDigestLen), [&] {
      session.digest->update(data);
      return session.digest->finish();
    });
  });
}

CK_RV C_DigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
  return sessionCall("C_DigestUpdate", hSession, [&](const Call& call, State&, Session& session) -> CK_RV {
    OperationEnd end(session.digest);
    if (!session.digest) return refuseNotInitialized(call);
    session.digest->update(requiredData(pPart, ulPartLen));
    return end.goOn();
  });
}

// The secrets that this library holds can be digested as data; the token's keys cannot.
CK_RV C_DigestKey(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hKey) {
  return sessionCall("C_DigestKey", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    OperationEnd end(session.digest);
    if (!session.digest) return refuseNotInitialized(call);
    SecretBytes value;
    {
      ModuleLock module(state);
      const auto key = findVisible(module, session, hKey);
      if (!key || !key->isKey()) return call.refuse(CKR_KEY_HANDLE_INVALID, "invalid hKey=", hKey);
      if (key->objectClass != CKO_SECRET_KEY) return call.refuse(CKR_KEY_INDIGESTIBLE, "no secret key, hKey=", hKey);
      value = *key->attributes->find(CKA_VALUE);
    }
    session.digest->update(value);
    return end.goOn();
  });
}

CK_RV C_DigestFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen) {
  return sessionCall("C_DigestFinal", hSession, [&](const Call& call, State&, Session& session) -> CK_RV {
    OperationEnd end(session.digest);
    if (!session.digest) return refuseNotInitialized(call);
    return end.deliver(call, session.digest->mechanism().length, pDigest, requiredLength(pulDigestLen),
                       [&] { return session.digest->finish(); });
  });
}
