// C_GenerateRandom.
#include "devlib/device_library.h"
#include "devlib/records.h"
#include "sessions/refusals.h"

using namespace tavrin;

CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pRandomData, CK_ULONG ulRandomLen) {
  return sessionCall("C_GenerateRandom", hSession, [&](const Call& call, const Session& session) -> CK_RV {
    if (!pRandomData) return call.refuse(CKR_ARGUMENTS_BAD, "RandomData is NULL");
    if (ulRandomLen == 0) return call.refuse(CKR_ARGUMENTS_BAD, "ulRandomLen<=0, ulRandomLen=", ulRandomLen);

    // The only operation on a device that gets no instance.
    const int status =
        tavrin_generateRamdomNumber(session.deviceId(), deviceLength(ulRandomLen), pRandomData, true, nullptr);
    if (status == 0) return CKR_OK;
    return call.refuse(CKR_FUNCTION_FAILED, "generate random number failed ret=", status);
  });
}
