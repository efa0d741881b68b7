// C_DigestInit, C_Digest, C_DigestUpdate and C_DigestFinal.
#include "crypto/device_hash.h"
#include "crypto/result_delivery.h"
#include "sessions/refusals.h"

namespace tavrin {
namespace {

// Ends the hash and keeps the digest in the session.
CK_RV finishDigest(const Call& call, Session& session) {
  Digest digest;
  const int status = digest.finish(session.parts.hashContext, 0);
  if (status != 0) return call.refuseBare(CKR_FUNCTION_FAILED, "Final hash data in diget failed : ", status);
  session.parts.data.assign(digest.bytes().begin(), digest.bytes().end());
  return CKR_OK;
}

CK_RV deliverDigest(const Call& call, Session& session, CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen) {
  if (deliver(call, session.parts.data, pDigest, pulDigestLen) == Delivery::delivered) {
    session.activeOperation = Operation::none;
  }
  logDebug(call.name(), " Success");
  return CKR_OK;
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism) {
  return sessionCall("C_DigestInit", hSession, [&](const Call& call, Session& session) -> CK_RV {
    const CK_STATE state = session.state;
    if (state == CKS_RO_PUBLIC_SESSION) return refuseState(call, state);
    // A digest in progress starts again.
    if (session.activeOperation != Operation::none && session.activeOperation != Operation::digest) {
      return refuseActive(call, session);
    }
    if (!pMechanism) return call.refuseBare(CKR_ARGUMENTS_BAD, "C_DigestInit mechanism pointer in NULL");
    const Mechanism* mechanism = findMechanism(pMechanism->mechanism, CKF_DIGEST);
    if (!mechanism) return call.refuseBare(CKR_MECHANISM_INVALID, "C_DigestInit mechanism not supported");

    const int status = initHash(session, mechanism->hash, &session.parts.hashContext);
    if (status != 0) return call.refuseBare(CKR_FUNCTION_FAILED, "Init hash in diges init failed : ", status);
    wipeAndFree(session.parts.data);
    session.activeOperation = Operation::digest;
    return CKR_OK;
  });
}

CK_RV C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pDigest,
               CK_ULONG_PTR pulDigestLen) {
  return sessionCall("C_Digest", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::digest) return refuseNotInitialized(call, session);
    if (!pData || ulDataLen == 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "pData is NULL or ulDataLen<=0, ulDataLen=", ulDataLen);
    }
    if (!pulDigestLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulDigestLen is NULL");

    // A digest that a query has finished is returned without hashing the data again.
    if (session.parts.data.empty()) {
      const int status = updateHash(session.parts.hashContext, {pData, static_cast<std::size_t>(ulDataLen)});
      if (status != 0) return call.refuseBare(CKR_FUNCTION_FAILED, "Update hash data in diget failed : ", status);
      const CK_RV refusal = finishDigest(call, session);
      if (refusal != CKR_OK) return refusal;
    }
    return deliverDigest(call, session, pDigest, pulDigestLen);
  });
}

CK_RV C_DigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen) {
  return sessionCall("C_DigestUpdate", hSession, [&](const Call& call, const Session& session) -> CK_RV {
    if (session.activeOperation != Operation::digest) return refuseNotInitialized(call, session);
    if (!pPart || ulPartLen == 0) {
      return call.refuse(CKR_ARGUMENTS_BAD, "pPart is NULL or ulPartLen<=0, ulPartLen=", ulPartLen);
    }

    const int status = updateHash(session.parts.hashContext, {pPart, static_cast<std::size_t>(ulPartLen)});
    if (status == 0) return CKR_OK;
    return call.refuseBare(CKR_FUNCTION_FAILED, "Update hash data in digest update failed : ", status);
  });
}

CK_RV C_DigestFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen) {
  return sessionCall("C_DigestFinal", hSession, [&](const Call& call, Session& session) -> CK_RV {
    if (session.activeOperation != Operation::digest) return refuseNotInitialized(call, session);
    if (!pulDigestLen) return call.refuse(CKR_ARGUMENTS_BAD, "pulDigestLen is NULL");

    if (session.parts.data.empty()) {
      const CK_RV refusal = finishDigest(call, session);
      if (refusal != CKR_OK) return refusal;
    }
    return deliverDigest(call, session, pDigest, pulDigestLen);
  });
}
