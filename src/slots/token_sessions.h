// The functions that the slots need from the sessions. They are defined in sessions/, the layer above this one.
// Any thread may call them.
#pragma once

#include <string>
#include <vector>

#include "pkcs11.h"

namespace tavrin {

struct PublicSessionCounts {
  CK_ULONG readOnly;
  CK_ULONG readWrite;
};

// How many sessions, over all slots, are in each public state; logged-in sessions are in neither count.
PublicSessionCounts countPublicSessions();

// Sets every user session whose device is not among the connected ones to its public state, and wipes the user's
// password if there was such a session.
void logOutSessionsWithoutDevice(const std::vector<std::string>& connectedDevices);

}  // namespace tavrin
