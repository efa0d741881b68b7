// One token: a folder with the files `token` (TokenState), `tries` (Tries) and `lock`, shared by processes. Changes
// take the lock; readers take none, as files are only ever replaced whole. Safe for any number of threads.
#pragma once

#include <functional>
#include <mutex>

#include "softtoken/token_state.h"

namespace softtoken {

// A secret that one thread uses: the master key of a token, under which its private keys are sealed.
using MasterKey = SecretBytes;

// Seals a new master key under a password.
PasswordLock makePasswordLock(std::string_view password, const MasterKey& masterKey, std::string_view serial,
                              Role role);

// The additional authenticated data of a private key: it opens only beside the record that it was stored with.
Bytes privateKeyContext(const TokenState& state, const TavrinKeyPair& pair);

class Token {
 public:
  explicit Token(const std::filesystem::path& folder)
      : folder_(folder), stateFile_(folder / "token"), triesFile_(folder / "tries"), lockFile_(folder / "lock") {}

  const std::filesystem::path& folder() const { return folder_; }

  // As it is in the file now; the file is parsed again only when it has changed. Throws deviceFault, and forgets the
  // password, when the token is gone or damaged.
  std::shared_ptr<const TokenState> state();

  Tries tries();

  // Checks a password, which costs a try unless it is right or empty. Throws wrongPassword or passwordLocked; the tries
  // left are written down in any case.
  MasterKey unlock(Role role, std::string_view password, int& triesLeft);
  // The same for the user, but a password that was right before is recognised without deriving a key from it.
  MasterKey unlockForUser(std::string_view password);

  // Sets a new user password on the authority of the user's old password or of the security officer's, which gives the
  // user all tries again. The tries left are those of the authority.
  void setUserPassword(Role authority, std::string_view password, std::string_view newPassword, int& triesLeft);

  // Applies `edit` to the newest state and stores the result, alone among all processes. What throws changes nothing.
  void change(const std::function<void(TokenState&)>& edit);

  // Wipes what a right password has left behind.
  void forgetPassword();

 private:
  struct KnownPassword {
    Digest256 mac;
    MasterKey masterKey;
  };

  std::shared_ptr<const TokenState> stateInLock();
  void setStateInLock(std::shared_ptr<const TokenState> next, const FileStamp& stamp);
  MasterKey unlockAlone(Role role, std::string_view password, int& triesLeft);
  void storeAlone(TokenState next);
  void storeTriesAlone(const Tries& tries);
  Digest256 macOf(const TokenState& state, std::string_view password);
  std::optional<MasterKey> recall(const TokenState& state, std::string_view password);
  void remember(const TokenState& state, std::string_view password, const MasterKey& masterKey);

  const std::filesystem::path folder_;
  const std::filesystem::path stateFile_;
  const std::filesystem::path triesFile_;
  const std::filesystem::path lockFile_;

  std::mutex mutex_;  // guards everything below; not held over slow work
  FileStamp stateStamp_;
  std::shared_ptr<const TokenState> state_;
  FileStamp triesStamp_;
  std::optional<Tries> tries_;
  SecretBytes macKey_;
  std::optional<KnownPassword> known_;
};

// The rule for new passwords: 4 to 63 bytes, none of them NUL.
void requireGoodPassword(std::string_view password);

}  // namespace softtoken
