// The delivery of a finished result to the caller. The length is always written. Without a buffer the call is a query
// and the result is kept. With a buffer the whole result is copied.
#pragma once

#include "frame/call_frames.h"
#include "platform/secret_memory.h"
#include "sessions/session.h"

namespace tavrin {

enum class Delivery {
  queried,   // no buffer was given; the result is kept
  tooSmall,  // the length does not fit into CK_ULONG; the error line is written and the result is kept
  delivered  // copied, wiped and freed
};

// Copies the result to `out` and its length to `outLength`, then wipes and frees it. If `out` is null, only the length
// is written. The caller's length is not compared, so `out` must hold the whole result: callers size it by a query
// first. `outLength` must not be null.
Delivery deliver(const Call& call, SecretBytes& result, CK_BYTE_PTR out, CK_ULONG_PTR outLength);

// Delivers the session's result in the same way, and ends the operation when it was copied. CKR_BUFFER_TOO_SMALL for
// tooSmall, else CKR_OK.
CK_RV deliverResult(const Call& call, Session& session, CK_BYTE_PTR out, CK_ULONG_PTR outLength);

}  // namespace tavrin
