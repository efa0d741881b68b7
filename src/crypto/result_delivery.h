// The delivery of a finished result to the caller. The length is always written. Without a buffer the call is a query
// and the result is kept. With a buffer the whole result is copied.
#pragma once

#include "pkcs11.h"
#include "platform/secret_memory.h"
#include "sessions/session.h"

namespace tavrin {

// Copies the result to `out` and its length to `outLength`, then wipes and frees it; returns true. If `out` is null,
// only the length is written, and the result is false. The caller's length is not compared, so `out` must hold the
// whole result: callers size it by a query first. `outLength` must not be null.
bool deliver(SecretBytes& result, CK_BYTE_PTR out, CK_ULONG_PTR outLength);

// Delivers the session's result in the same way, and ends the operation when it was copied. Returns CKR_OK.
CK_RV deliverResult(Session& session, CK_BYTE_PTR out, CK_ULONG_PTR outLength);

}  // namespace tavrin
