// The open sessions. A session can have one active operation of each kind; they are independent of each other.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "standard/operations.h"
#include "standard/tokens.h"

namespace tavrin::standard {

struct Session {
  Session(Token& itsToken, bool mayWrite) : token(itsToken), insertion(itsToken.insertion), readWrite(mayWrite) {}

  CK_SESSION_HANDLE handle = 0;
  Token& token;
  const unsigned insertion;
  const bool readWrite;

  std::mutex mutex;     // held for each call in the session; guards everything below
  bool closed = false;  // also while a call waits for the mutex
  std::optional<Search> search;
  std::unique_ptr<HashRun> digest;
  std::unique_ptr<KeyOperation> signing;
  std::unique_ptr<KeyOperation> verification;
  std::unique_ptr<KeyOperation> encryption;
  std::unique_ptr<KeyOperation> decryption;

  // Whether the token has stayed connected since the session was opened, as far as the library has noticed.
  bool isAlive() const { return token.present && token.insertion == insertion; }
  void requireAlive() const;  // throws CKR_DEVICE_REMOVED
  void requireUser() const;   // throws CKR_USER_NOT_LOGGED_IN
  CK_STATE state() const;
};

// Handles are never used again in the life of the process. Any thread.
class SessionTable {
 public:
  CK_SESSION_HANDLE add(std::shared_ptr<Session> session);
  std::shared_ptr<Session> find(CK_SESSION_HANDLE handle) const;
  void remove(CK_SESSION_HANDLE handle);
  // The token's sessions that are alive, or the read-write ones among them.
  std::size_t count(const Token& token, bool readWriteOnly = false) const;
  std::vector<std::shared_ptr<Session>> all() const;

 private:
  mutable std::mutex mutex_;
  std::map<CK_SESSION_HANDLE, std::shared_ptr<Session>> sessions_;
};

// Closes the session and ends what belongs to it. When it is the token's last session, the login ends too.
void closeSession(State& state, Session& session);

}  // namespace tavrin::standard
