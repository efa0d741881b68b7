// What signing and verification share: the refusal of PSS, and the input that the device signs or verifies. The input
// is the message itself for the raw mechanisms, else its digest; messages come whole or in parts.
#pragma once

#include "crypto/device_hash.h"
#include "crypto/mechanisms.h"
#include "devlib/records.h"
#include "frame/call_frames.h"
#include "sessions/session.h"

namespace tavrin {

// Refuses a PSS mechanism because of the token's firmware: CKR_MECHANISM_INVALID. The error line names CKM_RSA_PKCS_PSS
// for every PSS mechanism.
CK_RV refusePss(const Call& call, const Session& session);

// Ends the session's operation and returns the code.
CK_RV endFailed(Session& session, CK_RV code);

// The beginnings of the error lines for a hash of a whole message that fails. The device's status follows.
struct HashErrorTexts {
  const char* init;
  const char* update;
  const char* final;
};

// Sets `input` to the input for a whole message: a view of the message, or of its digest in `digest`. A device failure
// ends the operation.
CK_RV makeInput(Session& session, ByteView message, const HashErrorTexts& texts, Digest& digest, ByteView& input);

// Takes one part of the message: appends it to the session's parts, or hashes it with `hash`. A device failure ends the
// operation.
CK_RV takePart(const Call& call, Session& session, HashCode hash, ByteView part);

// Ends the hash of the parts, if there is one, and moves the input for the whole message out of the session's parts. A
// device failure ends the operation.
CK_RV takeInput(const Call& call, Session& session, HashCode hash, SecretBytes& input);

}  // namespace tavrin
