#include "softtoken/token.h"

#include <algorithm>

#include "softtoken/password_try.h"
#include "softtoken/record_io.h"
#include "softtoken/stored_file.h"

namespace softtoken {
namespace {

constexpr std::size_t maxStateFile = std::size_t{64} << 20;
constexpr std::size_t maxTriesFile = 1024;
constexpr std::size_t maxRefused = 32;

[[noreturn]] void failGone(const std::filesystem::path& folder) {
  throw Failure(Status::deviceFault, "the token in " + textOf(folder) + " is not there or damaged");
}

[[noreturn]] void failWrong() { throw Failure(Status::wrongPassword, "the password is wrong"); }

[[noreturn]] void failLocked() { throw Failure(Status::passwordLocked, "the password is locked"); }

// Null when the content is damaged.
std::shared_ptr<const TokenState> parseState(ByteView content) {
  try {
    return std::make_shared<const TokenState>(decodeTokenState(content));
  } catch (const Failure&) {
    return nullptr;
  }
}

// A lock made for a file with a proof, which is a MAC, has the context "with proof". So an attacker cannot remove the
// MAC: without the password the lock cannot be changed.
Bytes lockContext(std::string_view serial, Role role, bool needsProof) {
  Writer<> writer;
  writer.field(serial);
  writer.field(role == Role::user ? "user" : "security officer");
  if (needsProof) writer.field("with proof");
  return std::move(writer).take();
}

void requireAuthentic(const TokenState& state, const MasterKey& masterKey, bool needsProof) {
  if (isAuthentic(state, masterKey) || (!state.proof && !needsProof)) return;
  throw Failure(Status::deviceFault, "the token's file was changed without its password");
}

}  // namespace

PasswordLock makePasswordLock(std::string_view password, const MasterKey& masterKey, std::string_view serial,
                              Role role) {
  PasswordLock lock;
  lock.salt = randomBytes(saltSize);
  const SecretBytes key = scrypt(viewOf(password), lock.salt, lock.cost);
  lock.sealedMasterKey = seal(key, masterKey, lockContext(serial, role, true));
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

Token::Token(const std::filesystem::path& folder)
    : folder_(folder),
      stateFile_(folder / "token"),
      triesFile_(folder / "tries"),
      lockFile_(folder / "lock"),
      macKey_(randomSecret(secretKeySize)) {}

std::shared_ptr<const TokenState> Token::state() {
  const std::lock_guard guard(mutex_);
  return stateInLock();
}

// A damaged file is remembered with its stamp and a null state, so that it is not parsed at every listing.
std::shared_ptr<const TokenState> Token::stateInLock() {
  const std::optional<FileStamp> stamp = stampOf(stateFile_);
  if (!stamp) {
    setStateInLock(nullptr, {});
    failGone(folder_);
  }
  if (*stamp != stateStamp_) {
    const auto content = readFile(stateFile_, maxStateFile);
    if (!content) failGone(folder_);
    setStateInLock(parseState(*content), *stamp);
  }
  if (!state_) failGone(folder_);
  return state_;
}

void Token::setStateInLock(std::shared_ptr<const TokenState> next, const FileStamp& stamp) {
  if (next && serial_.empty()) serial_ = next->serial;
  if (next && next->serial != serial_) next = nullptr;
  if (!next) {
    former_.reset();
    known_.reset();
    refused_.clear();
  } else if (state_ && !(next->user == state_->user)) {
    former_.reset();
    if (known_) former_ = known_->mac;
    known_.reset();
    refused_.clear();
  }
  state_ = std::move(next);
  stateStamp_ = stamp;
}

Tries Token::tries() {
  const std::lock_guard guard(mutex_);
  const std::optional<FileStamp> stamp = stampOf(triesFile_);
  if (!stamp) failGone(folder_);
  if (!tries_ || *stamp != triesStamp_) {
    const auto content = readFile(triesFile_, maxTriesFile);
    if (!content) failGone(folder_);
    tries_ = decodeTries(*content);
    triesStamp_ = *stamp;
  }
  return *tries_;
}

UnlockedState Token::unlock(Role role, std::string_view password, int& triesLeft) {
  triesLeft = static_cast<int>(tries().of(role));
  require(!password.empty(), "the password is empty");
  const FileLock alone(lockFile_);
  return loginInFileLock(role, password, triesLeft);
}

UnlockedState Token::loginInFileLock(Role role, std::string_view password, int& triesLeft) {
  const Tries before = tries();
  triesLeft = static_cast<int>(before.of(role));
  if (before.of(role) == 0) failLocked();
  PasswordTry attempt(triesFile_, before, role);
  try {
    UnlockedState unlocked = openInFileLock(role, password);
    attempt.refill();
    triesLeft = static_cast<int>(maxTries);
    return unlocked;
  } catch (const Failure& failure) {
    if (failure.status() != Status::wrongPassword) throw;
    attempt.keepSpent();
    triesLeft = static_cast<int>(attempt.left());
    throw;
  }
}

UnlockedState Token::unlockForUser(std::string_view password) {
  if (auto known = recall(password)) return std::move(*known);
  require(!password.empty(), "the password is empty");
  const FileLock alone(lockFile_);
  // Another thread may have checked the same password while this one waited.
  if (auto known = recall(password)) return std::move(*known);
  if (wasRightBefore(password)) return openInFileLock(Role::user, password);
  PasswordTry attempt(triesFile_, tries(), Role::user);
  try {
    return openInFileLock(Role::user, password);
  } catch (const Failure& failure) {
    if (failure.status() == Status::wrongPassword) attempt.keepSpent();
    throw;
  }
}

// Checks the password and remembers the outcome.
UnlockedState Token::openInFileLock(Role role, std::string_view password) {
  const auto now = state();
  const PasswordLock& lock = now->lockOf(role);
  const SecretBytes key = scrypt(viewOf(password), lock.salt, lock.cost);
  for (const bool needsProof : {true, false}) {
    std::optional<MasterKey> masterKey = unseal(key, lock.sealedMasterKey, lockContext(now->serial, role, needsProof));
    if (!masterKey) continue;
    requireAuthentic(*now, *masterKey, needsProof);
    UnlockedState unlocked{now, std::move(*masterKey), needsProof};
    if (role == Role::user) remember(unlocked, password);
    return unlocked;
  }
  if (role == Role::user) rememberRefused(*now, password);
  failWrong();
}

void Token::setUserPassword(Role authority, std::string_view password, std::string_view newPassword, int& triesLeft) {
  triesLeft = static_cast<int>(tries().of(authority));
  requireValidPassword(newPassword);
  require(!password.empty(), "the password is empty");
  const FileLock alone(lockFile_);
  const UnlockedState unlocked = loginInFileLock(authority, password, triesLeft);
  TokenState next = *unlocked.state;
  next.user = makePasswordLock(newPassword, unlocked.masterKey, next.serial, Role::user);
  storeInFileLock(next, unlocked.masterKey);
  if (authority == Role::user) {
    remember({state(), unlocked.masterKey, true}, newPassword);
    return;
  }
  // Last: a process killed before this line leaves the user locked, and the call can be repeated.
  Tries left = tries();
  left.user = maxTries;
  replaceFile(triesFile_, encodeTries(left));
}

void Token::change(const UnlockedState& unlocked, const std::function<void(TokenState&)>& edit) {
  const FileLock alone(lockFile_);
  TokenState next = *state();
  requireAuthentic(next, unlocked.masterKey, unlocked.needsProof);
  edit(next);
  storeInFileLock(next, unlocked.masterKey);
}

void Token::storeInFileLock(const TokenState& next, const MasterKey& masterKey) {
  const Bytes file = encodeTokenState(next, masterKey);
  replaceFile(stateFile_, file);
  const std::optional<FileStamp> stamp = stampOf(stateFile_);
  if (!stamp) failGone(folder_);
  auto stored = parseState(file);
  const std::lock_guard guard(mutex_);
  setStateInLock(std::move(stored), *stamp);
}

void Token::forgetPassword() {
  const std::lock_guard guard(mutex_);
  known_.reset();
}

// A password is remembered by its MAC under a random key of this object.
Digest256 Token::macOf(std::string_view password) const { return hmacSha256(macKey_, {viewOf(password)}); }

std::optional<UnlockedState> Token::recall(std::string_view password) {
  if (tries().user == 0) failLocked();
  const Digest256 mac = macOf(password);
  const std::lock_guard guard(mutex_);
  auto now = stateInLock();
  if (known_ && equalInConstantTime(known_->mac, mac)) {
    requireAuthentic(*now, known_->masterKey, known_->needsProof);
    return UnlockedState{std::move(now), known_->masterKey, known_->needsProof};
  }
  if (std::ranges::find(refused_, mac) != refused_.end()) failWrong();
  return std::nullopt;
}

bool Token::wasRightBefore(std::string_view password) {
  const Digest256 mac = macOf(password);
  const std::lock_guard guard(mutex_);
  return former_ && equalInConstantTime(*former_, mac);
}

void Token::remember(const UnlockedState& unlocked, std::string_view password) {
  const Digest256 mac = macOf(password);
  const std::lock_guard guard(mutex_);
  if (state_ && state_->user == unlocked.state->user)
    known_ = KnownPassword{mac, unlocked.masterKey, unlocked.needsProof};
}

void Token::rememberRefused(const TokenState& state, std::string_view password) {
  const Digest256 mac = macOf(password);
  const std::lock_guard guard(mutex_);
  if (!state_ || !(state_->user == state.user)) return;
  if (std::ranges::find(refused_, mac) != refused_.end()) return;
  if (refused_.size() == maxRefused) refused_.erase(refused_.begin());
  refused_.push_back(mac);
}

void requireValidPassword(std::string_view password) {
  require(password.size() >= tavrin::minimumPinLength && password.size() <= tavrin::maximumPinLength &&
              password.find('\0') == std::string_view::npos,
          "a password has 4 to 63 bytes");
}

}  // namespace softtoken
