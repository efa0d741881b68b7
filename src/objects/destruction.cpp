// C_DestroyObject.
#include "devlib/records.h"
#include "frame/call_frames.h"
#include "objects/object_handles.h"
#include "sessions/session.h"
#include "sessions/user_password.h"

namespace tavrin {
namespace {

CK_RV destroyKeyPair(const Call& call, const Session& session, const TavrinKeyPair& keyPair) {
  const int status = tavrin_deleteKeyPair(session.deviceId(), keyPair.recordId, userPassword.copy().text(),
                                          deviceFlag(keyPair), libraryInstance);
  if (status == 0) return CKR_OK;
  return call.refuseBare(CKR_FUNCTION_FAILED, "Delete keypair in destroy object failed : ", status);
}

CK_RV destroyCertificate(const Call& call, const Session& session, const TavrinCertificate& record) {
  const int status =
      tavrin_deleteCertificate(session.deviceId(), record.recordId, userPassword.copy().text(), libraryInstance);
  if (status == 0) return CKR_OK;
  return call.refuseBare(CKR_FUNCTION_FAILED, "Delete certificate in destroy object failed : ", status);
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject) {
  const auto destroy = [&](const Call& call, const Session& session) -> CK_RV {
    if (session.isReadOnly()) {
      logDebug("Delete session state invalid : ", session.state.load());
      return CKR_SESSION_READ_ONLY;
    }

    logDebug("Delete key pair id : ", hObject);
    if (isPrivateKey(hObject)) {
      const TavrinKeyPair* keyPair = resolveKeyPair(session, hObject, privateKeyBase);
      if (keyPair) return destroyKeyPair(call, session, *keyPair);
      logDebug("Input keypair not found in destroy : ", hObject);
    } else if (hObject >= certificateBase) {
      const TavrinCertificate* record = resolveCertificate(session, hObject, certificateBase);
      if (record) return destroyCertificate(call, session, *record);
      logDebug("Input certificate not found in destroy : ", hObject);
    }
    // A public key is destroyed with its private key, never by its own handle.
    return call.refuse(CKR_OBJECT_HANDLE_INVALID, "invalid hObject=", hObject);
  };
  return sessionCall("C_DestroyObject", hSession, destroy, RefusalLines::debugForUnknownSession);
}
