#include "sessions/session_table.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "frame/call_frames.h"
#include "log/log.h"
#include "sessions/user_password.h"
#include "slots/token_sessions.h"

namespace tavrin {

std::shared_ptr<Session> SessionTable::find(CK_SESSION_HANDLE handle) const {
  const std::lock_guard lock(mutex_);
  const auto found = sessions_.find(handle);
  return found != sessions_.end() ? found->second : nullptr;
}

std::shared_ptr<Session> findSession(CK_SESSION_HANDLE handle) { return sessionTable.find(handle); }

CK_SESSION_HANDLE SessionTable::insert(std::shared_ptr<Session> session) {
  const std::lock_guard lock(mutex_);
  CK_SESSION_HANDLE handle = firstSessionHandle;
  if (!sessions_.empty()) {
    const CK_SESSION_HANDLE largest = sessions_.rbegin()->first;
    if (largest == std::numeric_limits<std::uint32_t>::max()) return 0;
    handle = largest + 1;
  }
  sessions_.emplace(handle, std::move(session));
  return handle;
}

void SessionTable::erase(CK_SESSION_HANDLE handle) {
  const std::lock_guard lock(mutex_);
  sessions_.erase(handle);
}

void SessionTable::clear() {
  const std::lock_guard lock(mutex_);
  sessions_.clear();
}

PublicSessionCounts countPublicSessions() {
  PublicSessionCounts counts{};
  sessionTable.forEach([&](const Session& session) {
    if (session.state == CKS_RO_PUBLIC_SESSION) ++counts.readOnly;
    if (session.state == CKS_RW_PUBLIC_SESSION) ++counts.readWrite;
  });
  return counts;
}

void logOutSessionsWithoutDevice(const std::vector<std::string>& connectedDevices) {
  std::size_t loggedOut = 0;
  sessionTable.forEach([&](Session& session) {
    const bool connected = std::find(connectedDevices.begin(), connectedDevices.end(), session.device.serialNumber) !=
                           connectedDevices.end();
    if (connected || !session.isUserSession()) return;
    session.dropLogin();
    ++loggedOut;
  });
  if (loggedOut > 0) userPassword.clear();
  for (; loggedOut > 0; --loggedOut) logDebug("Device disconnected, clearing userPassword");
}

}  // namespace tavrin
