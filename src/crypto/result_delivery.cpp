#include "crypto/result_delivery.h"

#include <algorithm>
#include <cstdint>

namespace tavrin {

Delivery deliver(const Call& call, SecretBytes& result, CK_BYTE_PTR out, CK_ULONG_PTR outLength) {
  const auto required = static_cast<std::uint64_t>(result.size());
  *outLength = static_cast<CK_ULONG>(required);
  if (!out) return Delivery::queried;
  // True only if the length does not fit into CK_ULONG.
  if (required > *outLength) {
    call.refuse(CKR_BUFFER_TOO_SMALL, "buffer too small, provided=", *outLength, " required=", required);
    return Delivery::tooSmall;
  }
  std::copy(result.begin(), result.end(), out);
  wipeAndFree(result);
  return Delivery::delivered;
}

CK_RV deliverResult(const Call& call, Session& session, CK_BYTE_PTR out, CK_ULONG_PTR outLength) {
  const Delivery delivery = deliver(call, session.result, out, outLength);
  if (delivery == Delivery::tooSmall) return CKR_BUFFER_TOO_SMALL;
  if (delivery == Delivery::delivered) session.activeOperation = Operation::none;
  return CKR_OK;
}

}  // namespace tavrin
