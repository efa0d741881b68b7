#include "softtoken/token.h"

#include <algorithm>

#include "softtoken/record_io.h"

namespace softtoken {
namespace {

constexpr std::size_t largestStateFile = std::size_t{64} << 20;
constexpr std::size_t largestTriesFile = 1024;
constexpr std::size_t shortestPassword = 4;
constexpr std::size_t longestPassword = 63;

[[noreturn]] void failGone(const std::filesystem::path& folder) {
  throw Failure(Status::deviceFault, "the token in " + textOf(folder) + " is not there or damaged");
}

// Nothing when the content is damaged.
std::shared_ptr<const TokenState> parseState(ByteView content) {
  try {
    return std::make_shared<const TokenState>(decodeTokenState(content));
  } catch (const Failure&) {
    return nullptr;
  }
}

Bytes lockContext(std::string_view serial, Role role) {
  Writer<> writer;
  writer.field(serial);
  writer.field(role == Role::user ? "user" : "security officer");
  return std::move(writer).take();
}

std::optional<MasterKey> openPasswordLock(const PasswordLock& lock, std::string_view password, std::string_view serial,
                                          Role role) {
  const SecretBytes key = scrypt(viewOf(password), lock.salt, lock.cost);
  return unseal(key, lock.sealedMasterKey, lockContext(serial, role));
}

}  // namespace

PasswordLock makePasswordLock(std::string_view password, const MasterKey& masterKey, std::string_view serial,
                              Role role) {
  PasswordLock lock;
  lock.salt = randomBytes(saltSize);
  const SecretBytes key = scrypt(viewOf(password), lock.salt, lock.cost);
  lock.sealedMasterKey = seal(key, masterKey, lockContext(serial, role));
  return lock;
}

Bytes privateKeyContext(const TokenState& state, const TavrinKeyPair& pair) {
  Writer<> writer;
  writer.field(state.serial);
  writer.field(pair.recordId);
  writer.number(pair.keyType);
  writer.field(ByteView(pair.publicKey).first(pair.publicKeyLength));
  return std::move(writer).take();
}

std::shared_ptr<const TokenState> Token::state() {
  const std::lock_guard guard(mutex_);
  return stateInLock();
}

// A damaged file is remembered as no state under its stamp, so that it is not parsed at every listing.
std::shared_ptr<const TokenState> Token::stateInLock() {
  const std::optional<FileStamp> stamp = stampOf(stateFile_);
  if (!stamp) {
    known_.reset();
    failGone(folder_);
  }
  if (*stamp != stateStamp_) {
    const auto content = readFile(stateFile_, largestStateFile);
    if (!content) failGone(folder_);
    setStateInLock(parseState(*content), *stamp);
  }
  if (!state_) failGone(folder_);
  return state_;
}

void Token::setStateInLock(std::shared_ptr<const TokenState> next, const FileStamp& stamp) {
  if (!next || !state_ || !(next->user == state_->user)) known_.reset();
  state_ = std::move(next);
  stateStamp_ = stamp;
}

Tries Token::tries() {
  const std::lock_guard guard(mutex_);
  const std::optional<FileStamp> stamp = stampOf(triesFile_);
  if (!stamp) failGone(folder_);
  if (!tries_ || *stamp != triesStamp_) {
    const auto content = readFile(triesFile_, largestTriesFile);
    if (!content) failGone(folder_);
    tries_ = decodeTries(*content);
    triesStamp_ = *stamp;
  }
  return *tries_;
}

MasterKey Token::unlock(Role role, std::string_view password, int& triesLeft) {
  triesLeft = static_cast<int>(tries().of(role));
  require(!password.empty(), "the password is empty");
  const FileLock alone(lockFile_);
  return unlockAlone(role, password, triesLeft);
}

MasterKey Token::unlockForUser(std::string_view password) {
  const auto now = state();
  const std::uint32_t left = tries().user;
  if (left == mostTries) {
    if (auto known = recall(*now, password)) return std::move(*known);
  }
  int ignored = 0;
  return unlock(Role::user, password, ignored);
}

// Writes the try down before it is made, so that killing the process in between gains nothing.
MasterKey Token::unlockAlone(Role role, std::string_view password, int& triesLeft) {
  Tries left = tries();
  triesLeft = static_cast<int>(left.of(role));
  if (left.of(role) == 0) throw Failure(Status::passwordLocked, "the password is locked");
  --left.of(role);
  storeTriesAlone(left);
  triesLeft = static_cast<int>(left.of(role));

  const auto now = state();
  std::optional<MasterKey> masterKey = openPasswordLock(now->lockOf(role), password, now->serial, role);
  if (!masterKey) throw Failure(Status::wrongPassword, "the password is wrong");
  left.of(role) = mostTries;
  storeTriesAlone(left);
  triesLeft = static_cast<int>(mostTries);
  if (role == Role::user) remember(*now, password, *masterKey);
  return std::move(*masterKey);
}

void Token::setUserPassword(Role authority, std::string_view password, std::string_view newPassword, int& triesLeft) {
  triesLeft = static_cast<int>(tries().of(authority));
  requireGoodPassword(newPassword);
  require(!password.empty(), "the password is empty");
  const FileLock alone(lockFile_);
  const MasterKey masterKey = unlockAlone(authority, password, triesLeft);
  TokenState next = *state();
  next.user = makePasswordLock(newPassword, masterKey, next.serial, Role::user);
  storeAlone(std::move(next));
  if (authority == Role::user) {
    remember(*state(), newPassword, masterKey);
    return;
  }
  // Last: a kill before this line leaves the user locked, and this call to be repeated.
  Tries left = tries();
  left.user = mostTries;
  storeTriesAlone(left);
}

void Token::change(const std::function<void(TokenState&)>& edit) {
  const FileLock alone(lockFile_);
  TokenState next = *state();
  edit(next);
  storeAlone(std::move(next));
}

void Token::storeAlone(TokenState next) {
  replaceFile(stateFile_, encodeTokenState(next));
  const std::optional<FileStamp> stamp = stampOf(stateFile_);
  if (!stamp) failGone(folder_);
  auto shared = std::make_shared<const TokenState>(std::move(next));
  const std::lock_guard guard(mutex_);
  setStateInLock(std::move(shared), *stamp);
}

void Token::storeTriesAlone(const Tries& tries) { replaceFile(triesFile_, encodeTries(tries)); }

void Token::forgetPassword() {
  const std::lock_guard guard(mutex_);
  known_.reset();
}

// The lock is part of it, so that a password which was right once is not recognised after a change.
Digest256 Token::macOf(const TokenState& state, std::string_view password) {
  return hmacSha256(macKey_, {viewOf(state.serial), state.user.salt, state.user.sealedMasterKey, viewOf(password)});
}

std::optional<MasterKey> Token::recall(const TokenState& state, std::string_view password) {
  const std::lock_guard guard(mutex_);
  if (!known_ || !equalInConstantTime(known_->mac, macOf(state, password))) return std::nullopt;
  return known_->masterKey;
}

void Token::remember(const TokenState& state, std::string_view password, const MasterKey& masterKey) {
  const std::lock_guard guard(mutex_);
  if (macKey_.empty()) {
    SecretBytes key(secretKeySize);
    fillRandom(key);
    macKey_ = std::move(key);
  }
  known_ = KnownPassword{macOf(state, password), masterKey};
}

void requireGoodPassword(std::string_view password) {
  require(password.size() >= shortestPassword && password.size() <= longestPassword &&
              password.find('\0') == std::string_view::npos,
          "a password has 4 to 63 bytes");
}

}  // namespace softtoken
