// One token: a folder with the files `token` (TokenState), `tries` (Tries) and `lock`, shared by processes. A change
// holds the lock. Readers hold no lock, because files are only replaced whole.
//
// Any number of threads may call a Token. Functions throw Failure: deviceFault when the token is missing, damaged or
// replaced by another one, when its files cannot be read or written, or when the lock is not free within 30 s; full
// when the disk is full; and what is said below. A function that changes a file has synced it, and the folder, to the
// disk when it returns.
#pragma once

#include <functional>
#include <mutex>

#include "softtoken/token_state.h"

namespace softtoken {

// The secret under which a token's private keys are sealed and its file is authenticated. For use by one thread.
using MasterKey = SecretBytes;

// Seals a master key under a password.
PasswordLock makePasswordLock(std::string_view password, const MasterKey& masterKey, std::string_view serial,
                              Role role);

// The context with which a private key is sealed: token, record, key type and public key.
Bytes privateKeyContext(const TokenState& state, const TavrinKeyPair& pair);

// A token's state, found authentic, with the master key that opens its private keys.
struct UnlockedState {
  std::shared_ptr<const TokenState> state;
  MasterKey masterKey;
  bool needsProof = false;  // true: a file of this token without a proof is forged
};

class Token {
 public:
  explicit Token(const std::filesystem::path& folder);

  const std::filesystem::path& folder() const { return folder_; }

  // The current state. The file is parsed only if it has changed. Throws deviceFault, and forgets the password, when
  // the file is missing or damaged or belongs to another token than before.
  std::shared_ptr<const TokenState> state();

  Tries tries();

  // A login. Checks the password, which costs a try until it is found right; then the role has all tries again. Throws
  // wrongPassword, passwordLocked when no try is left, and badArgument for an empty password. `triesLeft` receives the
  // tries that are left afterwards, also when the login fails; it is unchanged only when the tries cannot be read.
  UnlockedState unlock(Role role, std::string_view password, int& triesLeft);

  // An operation of the user. A password that was right before is recognised without deriving a key from it, and one
  // that was wrong before is refused without costing another try; both until the user's password changes. A password
  // that was right until a change is checked without costing a try. Never increases the number of tries.
  UnlockedState unlockForUser(std::string_view password);

  // Sets a new user password by authority of the user's old password or of the security officer's, and gives the user
  // all tries again. `triesLeft` are those of the authority. The master key stays the same.
  void setUserPassword(Role authority, std::string_view password, std::string_view newPassword, int& triesLeft);

  // Applies `edit` to the newest state and stores the result; no other process changes the token meanwhile. When `edit`
  // throws, nothing changes.
  void change(const UnlockedState& unlocked, const std::function<void(TokenState&)>& edit);

  // Wipes the master key that is kept since the last right password.
  void forgetPassword();

 private:
  struct KnownPassword {
    Digest256 mac;
    MasterKey masterKey;
    bool needsProof;
  };

  // ...InLock functions need mutex_, ...InFileLock functions the file lock.
  std::shared_ptr<const TokenState> stateInLock();
  void setStateInLock(std::shared_ptr<const TokenState> next, const FileStamp& stamp);
  UnlockedState loginInFileLock(Role role, std::string_view password, int& triesLeft);
  UnlockedState openInFileLock(Role role, std::string_view password);
  void storeInFileLock(const TokenState& next, const MasterKey& masterKey);

  Digest256 macOf(std::string_view password) const;
  std::optional<UnlockedState> recall(std::string_view password);
  bool wasRightBefore(std::string_view password);
  void remember(const UnlockedState& unlocked, std::string_view password);
  void rememberRefused(const TokenState& state, std::string_view password);

  const std::filesystem::path folder_;
  const std::filesystem::path stateFile_;
  const std::filesystem::path triesFile_;
  const std::filesystem::path lockFile_;
  const SecretBytes macKey_;

  std::mutex mutex_;  // guards everything below; not held while keys are derived or files written
  std::string serial_;
  FileStamp stateStamp_;
  std::shared_ptr<const TokenState> state_;
  FileStamp triesStamp_;
  std::optional<Tries> tries_;
  std::optional<KnownPassword> known_;  // right for the user's lock in state_
  std::vector<Digest256> refused_;      // MACs of passwords that are wrong for it
  std::optional<Digest256> former_;     // MAC of the password that was right for the lock before it
};

// The rule for new passwords: 4 to 63 bytes, none of them NUL. Throws badArgument.
void requireValidPassword(std::string_view password);

}  // namespace softtoken
