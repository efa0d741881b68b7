#include "crypto/result_delivery.h"

#include <algorithm>

namespace tavrin {

bool deliver(SecretBytes& result, CK_BYTE_PTR out, CK_ULONG_PTR outLength) {
  *outLength = static_cast<CK_ULONG>(result.size());
  if (!out) return false;
  std::copy(result.begin(), result.end(), out);
  wipeAndFree(result);
  return true;
}

CK_RV deliverResult(Session& session, CK_BYTE_PTR out, CK_ULONG_PTR outLength) {
  if (deliver(session.result, out, outLength)) session.activeOperation = Operation::none;
  return CKR_OK;
}

}  // namespace tavrin
