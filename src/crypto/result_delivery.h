// How a finished result reaches the caller: the length is always written; without a buffer the call was a query and
// the result is kept; with one the whole result is copied and the operation is over.
#pragma once

#include "frame/exported_call.h"
#include "platform/secret_memory.h"

namespace tavrin {

enum class Delivery { queried, tooSmall, delivered };

// Delivers the result, and empties it when it was copied. The caller's length is not read: callers size the buffer by
// a query first.
Delivery deliver(const Call& call, SecretBytes& result, CK_BYTE_PTR out, CK_ULONG_PTR outLength);

}  // namespace tavrin
