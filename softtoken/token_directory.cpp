#include "softtoken/token_directory.h"

#include <algorithm>

namespace softtoken {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t longestName = 64;
constexpr std::size_t longestLabel = 64;
constexpr std::size_t longestFirmware = 31;

// Names that begin with a dot are no devices.
constexpr const char* unpluggedFolder = ".unplugged";
constexpr const char* rootLock = ".lock";
constexpr const char* unfinishedPrefix = ".new-";
constexpr const char* removedPrefix = ".removed-";

// Token folders in byte-wise order of their names. Errors end the walk, as the folder may go away meanwhile.
std::vector<fs::path> tokenFolders(const fs::path& root) {
  std::vector<fs::path> folders;
  std::error_code error;
  for (fs::directory_iterator entry(root, error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = textOf(entry->path().filename());
    std::error_code unreadable;
    if (name[0] != '.' && entry->is_directory(unreadable)) folders.push_back(entry->path());
  }
  std::ranges::sort(folders);
  return folders;
}

bool isControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7F;
}

// Windows opens a device for such a name, with or without an extension.
bool isDeviceName(const std::string& name) {
  std::string stem = name.substr(0, name.find('.'));
  stem.erase(stem.find_last_not_of(' ') + 1);
  std::ranges::transform(stem, stem.begin(),
                         [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
  if (stem.size() == 4 && (stem.starts_with("COM") || stem.starts_with("LPT"))) return stem[3] >= '0' && stem[3] <= '9';
  return stem == "CON" || stem == "PRN" || stem == "AUX" || stem == "NUL" || stem == "CONIN$" || stem == "CONOUT$";
}

// Fit for the file systems of both platforms.
void requireGoodName(const std::string& name) {
  require(!name.empty() && name.size() <= longestName, "a token's name has 1 to 64 bytes");
  require(name[0] != '.' && name.back() != '.' && name[0] != ' ' && name.back() != ' ',
          "a token's name does not begin with a dot or blank, nor end with one");
  require(name.find_first_of("/\\:*?\"<>|") == std::string::npos && std::ranges::none_of(name, isControl),
          "a token's name holds none of / \\ : * ? \" < > | and no control character");
  require(!isDeviceName(name), "a token's name is none that Windows reserves, such as CON, NUL or COM1");
}

std::string makeSerial() {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string serial;
  for (const std::uint8_t byte : randomBytes(8)) {
    serial += digits[byte >> 4];
    serial += digits[byte & 15];
  }
  return serial;
}

fs::path pluggedPath(const std::string& name) { return tokenRoot() / pathOf(name); }

fs::path unpluggedPath(const std::string& name) { return tokenRoot() / unpluggedFolder / pathOf(name); }

void requireNoSuchToken(const std::string& name) {
  if (fs::exists(pluggedPath(name)) || fs::exists(unpluggedPath(name)))
    throw Failure(Status::badArgument, "there is a token named " + name + " already");
}

// Removes what killed makers and removers of tokens have left behind. To be called with the root's lock held.
void removeLeftovers() {
  std::vector<fs::path> leftovers;
  std::error_code error;
  for (fs::directory_iterator entry(tokenRoot(), error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = textOf(entry->path().filename());
    if (name.starts_with(unfinishedPrefix) || name.starts_with(removedPrefix)) leftovers.push_back(entry->path());
  }
  for (const fs::path& leftover : leftovers) fs::remove_all(leftover);
}

void summarise(const fs::path& root, bool plugged, std::vector<TokenSummary>& summaries) {
  for (const fs::path& folder : tokenFolders(root)) {
    try {
      Token token(folder);
      summaries.push_back({textOf(folder.filename()), plugged, token.state(), token.tries(), {}});
    } catch (const Failure& failure) {
      summaries.push_back({textOf(folder.filename()), plugged, nullptr, {}, failure.what()});
    }
  }
}

}  // namespace

std::vector<std::string> TokenDirectory::serials() {
  const std::lock_guard guard(mutex_);
  lookAgainInLock();
  std::vector<std::string> serials;
  for (const auto& [serial, token] : bySerial_) serials.push_back(serial);
  return serials;
}

FoundToken TokenDirectory::find(std::string_view serial) {
  for (const bool again : {false, true}) {
    if (again) serials();
    const std::shared_ptr<Token> token = known(serial);
    if (!token) continue;
    try {
      // Another token may have taken the place of this one.
      if (auto state = token->state(); state->serial == serial) return {token, std::move(state)};
    } catch (const Failure&) {
      continue;
    }
  }
  throw Failure(Status::deviceFault, "no such device is connected");
}

std::shared_ptr<Token> TokenDirectory::known(std::string_view serial) {
  const std::lock_guard guard(mutex_);
  const auto found = bySerial_.find(serial);
  return found == bySerial_.end() ? nullptr : found->second;
}

void TokenDirectory::forgetPasswords() {
  const std::lock_guard guard(mutex_);
  for (const auto& [folder, token] : byFolder_) token->forgetPassword();
}

void TokenDirectory::lookAgainInLock() {
  std::map<fs::path, std::shared_ptr<Token>> before = std::move(byFolder_);
  byFolder_.clear();
  bySerial_.clear();
  for (const fs::path& folder : tokenFolders(tokenRoot())) {
    auto kept = before.extract(folder);
    const auto token = kept ? kept.mapped() : std::make_shared<Token>(folder);
    byFolder_.emplace(folder, token);
    try {
      token->tries();
      bySerial_.emplace(token->state()->serial, token);
    } catch (const Failure&) {
      continue;
    }
  }
  for (const auto& [folder, gone] : before) gone->forgetPassword();
}

void requireGood(const NewToken& token) {
  requireGoodName(token.name);
  require(!token.label.empty() && token.label.size() <= longestLabel && std::ranges::none_of(token.label, isControl),
          "a label has 1 to 64 bytes and no control character");
  require(
      token.firmware.size() <= longestFirmware && token.firmware.find_first_not_of("0123456789.") == std::string::npos,
      "a firmware version has digits and dots, at most 31 bytes");
  require(token.capacity >= 1 && token.capacity <= largestId, "a capacity is between 1 and 4095 objects");
}

void createToken(const NewToken& token, std::string_view userPassword, std::string_view officerPassword) {
  requireGood(token);
  requireGoodPassword(userPassword);
  requireGoodPassword(officerPassword);
  makePrivateFolder(tokenRoot());
  const FileLock alone(tokenRoot() / rootLock);
  requireNoSuchToken(token.name);

  TokenState state;
  state.serial = makeSerial();
  state.label = token.label;
  state.firmware = token.firmware;
  state.capacity = token.capacity;
  MasterKey masterKey(secretKeySize);
  fillRandom(masterKey);
  state.user = makePasswordLock(userPassword, masterKey, state.serial, Role::user);
  state.securityOfficer = makePasswordLock(officerPassword, masterKey, state.serial, Role::securityOfficer);

  const fs::path unfinished = tokenRoot() / pathOf(unfinishedPrefix + token.name);
  removeLeftovers();
  makePrivateFolder(unfinished);
  replaceFile(unfinished / "tries", encodeTries({}));
  replaceFile(unfinished / "token", encodeTokenState(state));
  moveEntry(unfinished, pluggedPath(token.name));
}

std::vector<TokenSummary> allTokens() {
  std::error_code error;
  if (const fs::directory_iterator entries(tokenRoot(), error); error && error != std::errc::no_such_file_or_directory)
    throw Failure(Status::deviceFault, "cannot read the folder " + textOf(tokenRoot()) + ": " + error.message());
  std::vector<TokenSummary> summaries;
  summarise(tokenRoot(), true, summaries);
  summarise(tokenRoot() / unpluggedFolder, false, summaries);
  std::ranges::sort(summaries, {}, &TokenSummary::name);
  return summaries;
}

fs::path folderOfToken(const std::string& name) {
  requireGoodName(name);
  for (const fs::path& folder : {pluggedPath(name), unpluggedPath(name)})
    if (fs::is_directory(folder)) return folder;
  throw Failure(Status::notFound, "there is no token named " + name);
}

bool tokenExists(const std::string& name) {
  requireGoodName(name);
  return fs::is_directory(pluggedPath(name)) || fs::is_directory(unpluggedPath(name));
}

bool isPlugged(const std::string& name) { return folderOfToken(name) == pluggedPath(name); }

// Asks for the token first, as there may be no folder to hold the lock.
static FileLock lockFor(const std::string& name) {
  folderOfToken(name);
  return FileLock(tokenRoot() / rootLock);
}

void plugToken(const std::string& name) {
  const FileLock alone = lockFor(name);
  require(!isPlugged(name), "the token is plugged in");
  moveEntry(unpluggedPath(name), pluggedPath(name));
}

void unplugToken(const std::string& name) {
  const FileLock alone = lockFor(name);
  require(isPlugged(name), "the token is not plugged in");
  makePrivateFolder(tokenRoot() / unpluggedFolder);
  moveEntry(pluggedPath(name), unpluggedPath(name));
}

void removeToken(const std::string& name) {
  const FileLock alone = lockFor(name);
  const fs::path folder = folderOfToken(name);
  const fs::path removed = tokenRoot() / pathOf(removedPrefix + name);
  removeLeftovers();
  moveEntry(folder, removed);
  removeLeftovers();
}

}  // namespace softtoken
