// All open sessions, of all slots.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "sessions/session.h"

namespace tavrin {

inline constexpr CK_SESSION_HANDLE firstSessionHandle = 0x60000001;

// Any thread may call the functions. The lock is held only while the table is read or changed. A session that is closed
// while another thread uses it exists until that thread releases its pointer.
class SessionTable {
 public:
  // Null for an unknown handle.
  std::shared_ptr<Session> find(CK_SESSION_HANDLE handle) const;

  // Stores the session under a new handle, the largest in use plus one. Returns 0 when there is no handle left.
  CK_SESSION_HANDLE insert(std::shared_ptr<Session> session);

  void erase(CK_SESSION_HANDLE handle);
  void clear();

  // Visits every session in ascending handle order under the table's lock, so the visitor must neither log nor call the
  // device library.
  template <typename Visitor>
  void forEach(Visitor&& visit) const {
    const std::lock_guard lock(mutex_);
    for (const auto& [handle, session] : sessions_) visit(*session);
  }

  // The same for the sessions of one token, named by its device identifier.
  template <typename Visitor>
  void forEachOfDevice(const std::string& serialNumber, Visitor&& visit) const {
    forEach([&](Session& session) {
      if (session.device.serialNumber == serialNumber) visit(session);
    });
  }

  std::mutex& mutex() { return mutex_; }

 private:
  mutable std::mutex mutex_;
  std::map<CK_SESSION_HANDLE, std::shared_ptr<Session>> sessions_;
};

extern SessionTable& sessionTable;

}  // namespace tavrin
