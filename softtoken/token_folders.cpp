#include "softtoken/token_folders.h"

#include <algorithm>

#include "softtoken/stored_file.h"

namespace softtoken {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t maxName = 64;
constexpr std::size_t maxLabel = 64;
constexpr std::size_t maxFirmware = 31;

// A name that begins with a dot is not that of a device.
constexpr const char* unpluggedFolder = ".unplugged";
constexpr const char* rootLock = ".lock";
constexpr const char* unfinishedPrefix = ".new-";
constexpr const char* removedPrefix = ".removed-";

// Whether UTF-8 text has control characters: C0, DEL, or C1, which has the bytes C2 80 to C2 9F.
bool hasControl(std::string_view text) {
  unsigned char before = 0;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x20 || byte == 0x7F || (before == 0xC2 && byte >= 0x80 && byte < 0xA0)) return true;
    before = byte;
  }
  return false;
}

char upper(char letter) { return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - ('a' - 'A')) : letter; }

// Windows has devices with these names, with any extension, in every folder.
bool isWindowsDevice(std::string_view name) {
  std::string base(name.substr(0, name.find('.')));
  base.erase(base.find_last_not_of(' ') + 1);
  std::ranges::transform(base, base.begin(), upper);
  for (const std::string_view device : {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"})
    if (base == device) return true;
  if (base.size() < 4 || (!base.starts_with("COM") && !base.starts_with("LPT"))) return false;
  const std::string_view number = std::string_view(base).substr(3);
  return (number.size() == 1 && number[0] >= '0' && number[0] <= '9') || number == "\xC2\xB9" || number == "\xC2\xB2" ||
         number == "\xC2\xB3";
}

// A name must be valid in the file systems of both platforms.
void requireValidName(const std::string& name) {
  require(!name.empty() && name.size() <= maxName, "a token's name has 1 to 64 bytes");
  require(name[0] != '.' && name.back() != '.' && name[0] != ' ' && name.back() != ' ',
          "a token's name does not begin with a dot or blank, nor end with one");
  require(name.find_first_of("/\\:*?\"<>|") == std::string::npos && !hasControl(name),
          "a token's name holds none of / \\ : * ? \" < > | and no control character");
  require(!isWindowsDevice(name), "a token's name must not be one that Windows reserves, such as CON, NUL or COM1");
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
  for (const fs::path& folder : {pluggedPath(name), unpluggedPath(name)}) {
    std::error_code unknown;
    if (fs::symlink_status(folder, unknown).type() != fs::file_type::not_found)
      throw Failure(Status::badArgument, "there is a token named " + name + " already");
  }
}

// Removes what killed processes have left of tokens that they made or removed. Needs the lock of the root.
void removeLeftovers() {
  std::vector<fs::path> leftovers;
  std::error_code error;
  for (fs::directory_iterator entry(tokenRoot(), error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = textOf(entry->path().filename());
    if (name.starts_with(unfinishedPrefix) || name.starts_with(removedPrefix)) leftovers.push_back(entry->path());
  }
  for (const fs::path& leftover : leftovers) fs::remove_all(leftover);
}

void appendSummaries(const fs::path& root, bool plugged, std::vector<TokenSummary>& summaries) {
  for (const fs::path& folder : tokenFolders(root)) {
    TokenSummary summary{textOf(folder.filename()), plugged, nullptr, {}, {}};
    try {
      Token token(folder);
      summary.tries = token.tries();
      summary.state = token.state();
    } catch (const Failure& failure) {
      summary.problem = failure.what();
    }
    summaries.push_back(std::move(summary));
  }
}

// Removes an unfinished token, unless it was finished.
class Unfinished {
 public:
  explicit Unfinished(fs::path folder) : folder_(std::move(folder)) {}
  ~Unfinished() {
    std::error_code ignored;
    if (!folder_.empty()) fs::remove_all(folder_, ignored);
  }
  Unfinished(const Unfinished&) = delete;
  Unfinished& operator=(const Unfinished&) = delete;

  const fs::path& folder() const { return folder_; }
  void moveTo(const fs::path& place) {
    moveEntry(folder_, place);
    folder_.clear();
  }

 private:
  fs::path folder_;
};

}  // namespace

std::vector<fs::path> tokenFolders(const fs::path& root) {
  std::vector<fs::path> folders;
  std::error_code error;
  // An error ends the walk: the folder may be removed meanwhile.
  for (fs::directory_iterator entry(root, error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = textOf(entry->path().filename());
    std::error_code unreadable;
    if (name[0] != '.' && entry->is_directory(unreadable)) folders.push_back(entry->path());
  }
  std::ranges::sort(folders);
  return folders;
}

void requireValid(const NewToken& token) {
  requireValidName(token.name);
  require(!token.label.empty() && token.label.size() <= maxLabel && !hasControl(token.label),
          "a label has 1 to 64 bytes and no control characters");
  require(token.firmware.size() <= maxFirmware && token.firmware.find_first_not_of("0123456789.") == std::string::npos,
          "a firmware version has digits and dots, at most 31 bytes");
  require(token.capacity >= 1 && token.capacity <= largestId, "a capacity is between 1 and 4095 objects");
}

void createToken(const NewToken& token, std::string_view userPassword, std::string_view officerPassword) {
  requireValid(token);
  requireValidPassword(userPassword);
  requireValidPassword(officerPassword);
  requireNoSuchToken(token.name);

  TokenState state;
  state.serial = makeSerial();
  state.label = token.label;
  state.firmware = token.firmware;
  state.capacity = token.capacity;
  const MasterKey masterKey = randomSecret(secretKeySize);
  state.user = makePasswordLock(userPassword, masterKey, state.serial, Role::user);
  state.securityOfficer = makePasswordLock(officerPassword, masterKey, state.serial, Role::securityOfficer);

  makePrivateFolder(tokenRoot());
  const FileLock alone(tokenRoot() / rootLock);
  requireNoSuchToken(token.name);
  removeLeftovers();
  Unfinished unfinished(tokenRoot() / pathOf(unfinishedPrefix + token.name));
  makePrivateFolder(unfinished.folder());
  writeFile(unfinished.folder() / "tries", encodeTries({}));
  replaceFile(unfinished.folder() / "token", encodeTokenState(state, masterKey));
  unfinished.moveTo(pluggedPath(token.name));
}

std::vector<TokenSummary> allTokens() {
  std::error_code error;
  if (const fs::directory_iterator entries(tokenRoot(), error); error && error != std::errc::no_such_file_or_directory)
    throw Failure(Status::deviceFault, "cannot read the folder " + textOf(tokenRoot()) + ": " + error.message());
  std::vector<TokenSummary> summaries;
  appendSummaries(tokenRoot(), true, summaries);
  appendSummaries(tokenRoot() / unpluggedFolder, false, summaries);
  std::ranges::sort(summaries, {}, &TokenSummary::name);
  return summaries;
}

fs::path folderOfToken(const std::string& name) {
  requireValidName(name);
  for (const fs::path& folder : {pluggedPath(name), unpluggedPath(name)})
    if (fs::is_directory(folder)) return folder;
  throw Failure(Status::notFound, "there is no token named " + name);
}

bool tokenExists(const std::string& name) {
  requireValidName(name);
  return fs::is_directory(pluggedPath(name)) || fs::is_directory(unpluggedPath(name));
}

bool isPlugged(const std::string& name) { return folderOfToken(name) == pluggedPath(name); }

// Looks for the token first, because without a root there is no folder for the lock.
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
  {
    // A process that waits for the token's lock finds no token after this, and writes nothing into a new one of the
    // same name. On Windows the folder cannot be moved while the lock is held.
    const FileLock nobodyWrites(folder / "lock");
    std::error_code ignored;
    fs::remove(folder / "token", ignored);
  }
  moveEntry(folder, removed);
  removeLeftovers();
}

}  // namespace softtoken
