// The delivery of a finished result to the caller. The length is always written. Without a buffer the call is a query
// and the result is kept. With a buffer the whole result is copied.
#pragma once

#include "frame/exported_call.h"
#include "platform/secret_memory.h"
#include "sessions/session.h"

namespace tavrin {

enum class Delivery { queried, tooSmall, delivered };

// Delivers the result, and wipes and frees it when it was copied. The caller's length is not read: callers size the
// buffer by a query first.
Delivery deliver(const Call& call, SecretBytes& result, CK_BYTE_PTR out, CK_ULONG_PTR outLength);

// Delivers the session's result, and ends the operation when it was copied.
CK_RV deliverResult(const Call& call, Session& session, CK_BYTE_PTR out, CK_ULONG_PTR outLength);

}  // namespace tavrin
