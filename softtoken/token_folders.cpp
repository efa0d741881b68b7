#include "softtoken/token_folders.h"

#include <algorithm>

#include "softtoken/stored_file.h"
#include "softtoken/text.h"

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

// Windows has devices with these names, with any extension, in every folder.
bool isWindowsDevice(std::string_view name) {
  std::string base(name.substr(0, name.find('.')));
  base.erase(base.find_last_not_of(' ') + 1);
  std::ranges::transform(base, base.begin(), lower);
  for (const std::string_view device : {"con", "prn", "aux", "nul", "conin$", "conout$"})
    if (base == device) return true;
  if (base.size() < 4 || (!base.starts_with("com") && !base.starts_with("lpt"))) return false;
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

bool isFolder(const fs::path& path) {
  std::error_code error;
  const fs::file_type type = fs::status(path, error).type();
  if (error && type != fs::file_type::not_found)
    throw Failure(Status::deviceFault, "cannot read " + textOf(path) + ": " + error.message());
  return type == fs::file_type::directory;
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
    const std::string name = nameOf(*entry);
    if (name.starts_with(unfinishedPrefix) || name.starts_with(removedPrefix)) leftovers.push_back(entry->path());
  }
  for (const fs::path& leftover : leftovers) fs::remove_all(leftover, error);  // else the next call does
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

struct EmptyToken {
  TokenState state;
  MasterKey masterKey;
};

// A token without objects, with a new serial number. Takes as long as two derivations of keys.
EmptyToken makeEmptyToken(std::string_view userPassword, std::string_view officerPassword) {
  requireValidPassword(userPassword);
  requireValidPassword(officerPassword);
  EmptyToken empty{{}, randomSecret(secretKeySize)};
  TokenState& state = empty.state;
  state.serial = hexOf(randomBytes(8));
  state.user = makePasswordLock(userPassword, empty.masterKey, state.serial, Role::user);
  state.securityOfficer = makePasswordLock(officerPassword, empty.masterKey, state.serial, Role::securityOfficer);
  return empty;
}

// A file or folder that is removed unless it was moved to its place.
class Unfinished {
 public:
  explicit Unfinished(fs::path path) : path_(std::move(path)) {}
  ~Unfinished() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  Unfinished(const Unfinished&) = delete;
  Unfinished& operator=(const Unfinished&) = delete;

  const fs::path& path() const { return path_; }

 private:
  const fs::path path_;
};

}  // namespace

std::vector<fs::path> tokenFolders(const fs::path& root) {
  std::vector<fs::path> folders;
  std::error_code error;
  // An error ends the walk: the folder may be removed meanwhile.
  for (fs::directory_iterator entry(root, error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = nameOf(*entry);
    std::error_code unreadable;
    if (!name.empty() && name[0] != '.' && entry->is_directory(unreadable)) folders.push_back(entry->path());
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
  requireNoSuchToken(token.name);
  EmptyToken empty = makeEmptyToken(userPassword, officerPassword);
  empty.state.label = token.label;
  empty.state.firmware = token.firmware;
  empty.state.capacity = token.capacity;

  makePrivateFolder(tokenRoot());
  const FileLock alone(tokenRoot() / rootLock);
  requireNoSuchToken(token.name);
  removeLeftovers();
  const Unfinished folder(tokenRoot() / pathOf(unfinishedPrefix + token.name));
  makePrivateFolder(folder.path());
  writeFile(folder.path() / "tries", encodeTries({}));
  replaceFile(folder.path() / "token", encodeTokenState(empty.state, empty.masterKey));
  moveEntry(folder.path(), pluggedPath(token.name));
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
    if (isFolder(folder)) return folder;
  throw Failure(Status::notFound, "there is no token named " + name);
}

bool tokenExists(const std::string& name) {
  requireValidName(name);
  return isFolder(pluggedPath(name)) || isFolder(unpluggedPath(name));
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

void resetToken(const std::string& name, std::string_view userPassword, std::string_view officerPassword) {
  EmptyToken empty = makeEmptyToken(userPassword, officerPassword);
  const FileLock alone = lockFor(name);
  const fs::path folder = folderOfToken(name);
  // A process that waits for this lock finds another token after it, and changes nothing.
  const FileLock nobodyWrites(folder / "lock");
  const auto old = Token(folder).state();
  empty.state.label = old->label;
  empty.state.firmware = old->firmware;
  empty.state.capacity = old->capacity;
  // First, so that no disk space is needed when the new token is in its place.
  const Unfinished tries(folder / "tries.new");
  writeFile(tries.path(), encodeTries({}));
  replaceFile(folder / "token", encodeTokenState(empty.state, empty.masterKey));
  putInPlace(tries.path(), folder / "tries");
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
