#include "crypto/signature_parts.h"

#include "crypto/device_hash.h"

namespace tavrin {

CK_RV refusePss(const Call& call, const Session& session) {
  return call.refuse(CKR_MECHANISM_INVALID, "CKM_RSA_PKCS_PSS not supported on firmware ",
                     session.device.firmwareVersion);
}

CK_RV endFailed(Session& session, CK_RV code) {
  session.activeOperation = Operation::none;
  return code;
}

CK_RV takePart(const Call& call, Session& session, HashCode hash, ByteView part) {
  if (hash == HashCode::none) {
    session.digestData.insert(session.digestData.end(), part.begin(), part.end());
    return CKR_OK;
  }
  if (!session.hashContext) {
    const int status = initHash(session, hash, &session.hashContext);
    if (status != 0) return endFailed(session, call.refuse(CKR_FUNCTION_FAILED, "initHash failed ", status));
  }
  const int status = updateHash(session.hashContext, part.data(), static_cast<CK_ULONG>(part.size()));
  if (status == 0) return CKR_OK;
  session.hashContext = nullptr;
  return endFailed(session, call.refuse(CKR_FUNCTION_FAILED, "updateHash failed ", status));
}

CK_RV finishParts(const Call& call, Session& session) {
  Digest digest;
  const int status = digest.finish(session.hashContext, Digest::capacity);
  session.hashContext = nullptr;
  wipeAndFree(session.digestData);
  if (status != 0) return endFailed(session, call.refuse(CKR_FUNCTION_FAILED, "finalHash failed ", status));
  session.digestData.assign(digest.bytes().begin(), digest.bytes().end());
  return CKR_OK;
}

}  // namespace tavrin
