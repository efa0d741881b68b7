// Which firmware can do RSA-PSS and RSA-OAEP.
#pragma once

#include "sessions/session.h"

namespace tavrin {

// False when the firmware of the session's token is below 2.0.0.
bool firmwareHasPssAndOaep(const Session& session);

}  // namespace tavrin
