// What an application may rely on about slots, sessions, logins and operations. It shares no code with the module, and
// the random walk compares the two after every call.
#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "pkcs11.h"

struct ModelSession {
  CK_SLOT_ID slot;
  std::string device;
  CK_STATE state;
  unsigned operation = 0;  // as the log numbers them: 1 search, 2 encryption, 3 decryption, 4 digest, 5 signing, ...

  bool isReadOnly() const { return state == CKS_RO_PUBLIC_SESSION || state == CKS_RO_USER_FUNCTIONS; }
  bool isPublic() const { return state == CKS_RO_PUBLIC_SESSION || state == CKS_RW_PUBLIC_SESSION; }
  bool isUser() const { return state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS; }
};

class SessionModel {
 public:
  bool initialized = true;
  std::vector<std::string> slots;  // the devices as they were last listed
  std::map<CK_SESSION_HANDLE, ModelSession> sessions;
  std::string password;  // of the user who is logged in

  // The answer to every call that names a session, unless the session is there.
  std::optional<CK_RV> refusal(CK_SESSION_HANDLE handle) const {
    if (!initialized) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (sessions.count(handle) == 0) return CKR_SESSION_HANDLE_INVALID;
    return std::nullopt;
  }
  std::optional<CK_RV> slotRefusal(CK_SLOT_ID slot) const {
    if (!initialized) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (slot < firstSlot || slot - firstSlot >= slots.size()) return CKR_SLOT_ID_INVALID;
    return std::nullopt;
  }

  CK_SESSION_HANDLE open(CK_SLOT_ID slot, CK_FLAGS flags) {
    const CK_STATE publicState = (flags & CKF_RW_SESSION) != 0 ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
    const CK_SESSION_HANDLE handle = sessions.empty() ? firstSession : sessions.rbegin()->first + 1;
    sessions[handle] = {slot, slots[slot - firstSlot], password.empty() ? publicState : publicState + 1};
    return handle;
  }

  CK_RV login(CK_SESSION_HANDLE handle, CK_USER_TYPE user, const std::string& pin) {
    if (user == CKU_USER) password = pin;
    CK_RV result = CKR_OK;
    for (auto& [other, session] : sessions) {
      if (session.device != sessions.at(handle).device) continue;
      const bool isOfficer = session.state == CKS_RW_SO_FUNCTIONS;
      if (isOfficer) {
        result = user == CKU_USER ? CKR_USER_ANOTHER_ALREADY_LOGGED_IN : CKR_USER_ALREADY_LOGGED_IN;
      } else if (user == CKU_USER) {
        session.state = session.isReadOnly() ? CKS_RO_USER_FUNCTIONS : CKS_RW_USER_FUNCTIONS;
      } else if (session.isReadOnly()) {
        result = CKR_SESSION_READ_ONLY_EXISTS;
      } else {
        session.state = CKS_RW_SO_FUNCTIONS;
      }
    }
    return result;
  }

  void logout(CK_SESSION_HANDLE handle) {
    for (auto& [other, session] : sessions) {
      if (session.device == sessions.at(handle).device) lower(session);
    }
    password.clear();
  }

  // Users of tokens that are gone are logged out, security officers are not.
  void lookAtDevices(const std::vector<std::string>& connected) {
    for (auto& [handle, session] : sessions) {
      if (!session.isUser() || std::count(connected.begin(), connected.end(), session.device) != 0) continue;
      lower(session);
      password.clear();
    }
  }

  void finalize() {
    initialized = false;
    slots.clear();
    sessions.clear();
    password.clear();
  }

 private:
  static constexpr CK_SLOT_ID firstSlot = 0x50000001;
  static constexpr CK_SESSION_HANDLE firstSession = 0x60000001;

  static void lower(ModelSession& session) {
    session.state = session.isReadOnly() ? CKS_RO_PUBLIC_SESSION : CKS_RW_PUBLIC_SESSION;
  }
};
