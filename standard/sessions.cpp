#include "standard/sessions.h"

#include <algorithm>
#include <atomic>

#include "standard/module_calls.h"

namespace tavrin::standard {
namespace {

std::atomic<CK_SESSION_HANDLE> lastSessionHandle = 0;

}  // namespace

void Session::requireAlive() const {
  if (!isAlive()) throw Refusal(CKR_DEVICE_REMOVED, "the token was removed, hSession=", handle);
}

void Session::requireUser() const {
  if (token.login != Login::user) throw Refusal(CKR_USER_NOT_LOGGED_IN, "the user is not logged in");
}

CK_STATE Session::state() const {
  switch (token.login) {
    case Login::user:
      return readWrite ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
    case Login::securityOfficer:
      return CKS_RW_SO_FUNCTIONS;
    default:
      return readWrite ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
  }
}

CK_SESSION_HANDLE SessionTable::add(std::shared_ptr<Session> session) {
  session->handle = ++lastSessionHandle;
  const std::lock_guard guard(mutex_);
  return sessions_.emplace(session->handle, std::move(session)).first->first;
}

std::shared_ptr<Session> SessionTable::find(CK_SESSION_HANDLE handle) const {
  const std::lock_guard guard(mutex_);
  const auto place = sessions_.find(handle);
  return place == sessions_.end() ? nullptr : place->second;
}

void SessionTable::remove(CK_SESSION_HANDLE handle) {
  const std::lock_guard guard(mutex_);
  sessions_.erase(handle);
}

std::size_t SessionTable::count(const Token& token, bool readWriteOnly) const {
  const std::lock_guard guard(mutex_);
  return static_cast<std::size_t>(std::ranges::count_if(sessions_, [&](const auto& entry) {
    const Session& session = *entry.second;
    return &session.token == &token && session.isAlive() && (session.readWrite || !readWriteOnly);
  }));
}

std::vector<std::shared_ptr<Session>> SessionTable::all() const {
  const std::lock_guard guard(mutex_);
  std::vector<std::shared_ptr<Session>> result;
  for (const auto& [handle, session] : sessions_) result.push_back(session);
  return result;
}

void closeSession(State& state, Session& session) {
  {
    const std::lock_guard guard(session.mutex);
    if (session.closed) return;
    session.closed = true;
    session.search.reset();
    session.digest.reset();
    session.signing.reset();
    session.verification.reset();
    session.encryption.reset();
    session.decryption.reset();
  }
  state.sessions.remove(session.handle);
  if (!session.isAlive()) return;
  ModuleLock module(state);
  endSessionObjects(module, session.token, session.handle);
  if (session.token.login != Login::none && state.sessions.count(session.token) == 0) endLogin(module, session.token);
}

}  // namespace tavrin::standard
