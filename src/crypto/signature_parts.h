// What signing and verification share: the gate in front of PSS, and messages that come in parts. Signatures in parts
// either hash the parts as they come or, for the raw mechanisms, gather them in the session's `digestData`.
#pragma once

#include "crypto/mechanisms.h"
#include "devlib/records.h"
#include "log/call.h"
#include "sessions/session.h"

namespace tavrin {

// The message names CKM_RSA_PKCS_PSS whichever PSS mechanism was asked for.
CK_RV refusePss(const Call& call, const Session& session);

// Ends the session's operation and returns the code.
CK_RV endFailed(Session& session, CK_RV code);

// Takes one part. A device failure ends the operation.
CK_RV takePart(const Call& call, Session& session, HashCode hash, ByteView part);

// Ends the hash that runs over the parts and puts the digest in their place. A device failure ends the operation.
CK_RV finishParts(const Call& call, Session& session);

}  // namespace tavrin
