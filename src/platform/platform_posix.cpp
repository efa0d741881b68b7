#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <utility>

#include "platform/platform.h"

namespace tavrin::platform {

namespace {

// An open file or folder; closes its descriptor.
class File {
 public:
  File() = default;
  File(const char* path, int flags) : File(AT_FDCWD, path, flags) {}
  File(int folder, const char* name, int flags, mode_t mode = 0)
      : descriptor_(openat(folder, name, flags | O_CLOEXEC, mode)) {}
  ~File() {
    if (isOpen()) close(descriptor_);
  }
  File(File&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  File& operator=(File&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }

  int descriptor() const { return descriptor_; }
  bool isOpen() const { return descriptor_ >= 0; }
  bool describe(struct stat& status) const { return fstat(descriptor_, &status) == 0; }
  ssize_t read(void* buffer, std::size_t size) const { return ::read(descriptor_, buffer, size); }
  // A disk that is full cuts the text short; writing the rest later would put it between other lines.
  ssize_t write(std::string_view text) const { return ::write(descriptor_, text.data(), text.size()); }

 private:
  int descriptor_ = -1;
};

// The variable's value; null when it is not set or empty, or not to be trusted.
const char* variable(const char* name) {
  const char* value = secure_getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

bool isOfThisUser(const struct stat& status) { return status.st_uid == geteuid(); }

bool belongsToAnother(const char* path) {
  struct stat status;
  return lstat(path, &status) == 0 && !isOfThisUser(status);
}

constexpr char sharedTemporaryFolder[] = "/tmp/";

// This user's own folder in the shared one, for use without $TMPDIR.
bool ownTemporaryFolder(char* buffer, std::size_t size) {
  const int length =
      std::snprintf(buffer, size, "%stavrin-%lu/", sharedTemporaryFolder, static_cast<unsigned long>(geteuid()));
  return static_cast<std::size_t>(length) < size;
}

// What becomes of folders and files that are missing.
enum class Missing { left, created };

// Opens a folder of this user. Not open when it is another user's, or a link.
File openPrivateFolder(int parent, const char* name, Missing missing) {
  constexpr int flags = O_PATH | O_DIRECTORY | O_NOFOLLOW;
  File folder(parent, name, flags);
  if (!folder.isOpen() && errno == ENOENT && missing == Missing::created &&
      (mkdirat(parent, name, 0700) == 0 || errno == EEXIST)) {
    folder = File(parent, name, flags);
  }
  struct stat status;
  return folder.isOpen() && folder.describe(status) && isOfThisUser(status) ? std::move(folder) : File();
}

// Opens a regular file of this user that has one name only, for appending.
File openPrivateFile(int folder, const char* name, Missing missing) {
  // A pipe in the place of the file must not block the caller.
  const int flags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | (missing == Missing::created ? O_CREAT : 0);
  File file(folder, name, flags, 0600);
  struct stat status;
  const bool usable =
      file.isOpen() && file.describe(status) && S_ISREG(status.st_mode) && isOfThisUser(status) && status.st_nlink == 1;
  return usable ? std::move(file) : File();
}

// Opens the file that appendToFile describes, with its folder unless that is the first one.
File openPrivatePath(const char* path, std::size_t baseLength, Missing missing, File& folder) {
  char own[64];
  if (ownTemporaryFolder(own, sizeof own) && std::string_view(path).starts_with(own)) {
    baseLength = std::strlen(sharedTemporaryFolder);
  }
  std::string folders = path;
  // Each step opens the folder whose name ends at `end`: the first one by its whole path, the others in the last
  // folder.
  std::size_t start = 0;
  int parent = AT_FDCWD;
  for (auto end = folders.find('/', folders.find_first_not_of('/', baseLength)); end != std::string::npos;
       end = folders.find('/', start)) {
    folders[end] = '\0';
    if (start == 0 || end > start) folder = openPrivateFolder(parent, folders.c_str() + start, missing);
    if (!folder.isOpen()) return {};
    parent = folder.descriptor();
    start = end + 1;
  }
  return openPrivateFile(parent, folders.c_str() + start, missing);
}

// Writes the text. If the process has a limit on the size of files, a write beyond it raises SIGXFSZ, which would end
// the process. So the signal is blocked during the write, and removed if this write raised it.
void writeWithinLimit(const File& file, std::string_view text) {
  rlimit limit{};
  if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY) {
    file.write(text);
    return;
  }
  sigset_t exceeded;
  sigset_t before;
  sigset_t pending;
  sigemptyset(&exceeded);
  sigaddset(&exceeded, SIGXFSZ);
  pthread_sigmask(SIG_BLOCK, &exceeded, &before);
  sigpending(&pending);
  const bool isOurs = file.write(text) < 0 && errno == EFBIG && sigismember(&pending, SIGXFSZ) == 0;
  const timespec now{};
  if (isOurs) sigtimedwait(&exceeded, nullptr, &now);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Guards localtime_r, which takes a lock of the C library that would stay taken in a forked child.
constinit std::mutex timeMutex;

// The value of a decimal text, with blanks around it allowed; nothing when it is anything else.
std::optional<std::uint32_t> decimalValue(const char* text) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text, &end, 10);
  if (end == text || errno != 0 || value < INT32_MIN || value > UINT32_MAX) return std::nullopt;
  while (std::strchr(" \t\r\n", *end) != nullptr && *end != '\0') ++end;
  if (*end != '\0') return std::nullopt;
  return static_cast<std::uint32_t>(value);
}

bool same(const timespec& left, const timespec& right) {
  return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

// The number in a small file. The file is read again only when its status has changed: reading the status takes a third
// of the time of opening, reading and closing the file.
class NumberInFile {
 public:
  // Nothing when the file is missing, unreadable or no decimal text.
  std::optional<std::uint32_t> read(const char* path) {
    struct stat status;
    if (stat(path, &status) != 0) return std::nullopt;
    // Does not wait: the holder may be a thread that does not exist after a fork. The second caller reads the file.
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (lock && known_ && isKnown(status)) return number_;

    // A pipe in the place of the file must not block the caller.
    const File file(path, O_RDONLY | O_NONBLOCK);
    if (!file.isOpen() || !file.describe(status)) return std::nullopt;
    const bool settled = isSettled(status);
    char text[32];
    const ssize_t count = file.read(text, sizeof text - 1);
    if (count < 0) return std::nullopt;
    text[count] = '\0';
    const auto number = decimalValue(text);
    if (lock) {
      known_ = settled;
      status_ = status;
      number_ = number;
    }
    return number;
  }

 private:
  bool isKnown(const struct stat& status) const {
    return status.st_dev == status_.st_dev && status.st_ino == status_.st_ino && status.st_size == status_.st_size &&
           same(status.st_ctim, status_.st_ctim) && same(status.st_mtim, status_.st_mtim);
  }

  // A file system's clock may be coarse: a further change is sure to get another time only after a while.
  static bool isSettled(const struct stat& status) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return S_ISREG(status.st_mode) && now.tv_sec - status.st_ctim.tv_sec >= 2;
  }

  std::mutex mutex_;  // guards everything below
  bool known_ = false;
  struct stat status_ {};
  std::optional<std::uint32_t> number_;
};

// Composed in place, since the level of the log is read for every line.
bool registryPath(std::string_view key, std::string_view name, char* path, std::size_t size) {
  const char* variableValue = variable("TAVRIN_REGISTRY");
  const std::string_view root = variableValue != nullptr ? variableValue : "/etc/tavrin/registry";
  if (root.size() + key.size() + name.size() + 3 > size) return false;
  char* end = std::copy(root.begin(), root.end(), path);
  *end++ = '/';
  end = std::replace_copy(key.begin(), key.end(), end, '\\', '/');
  *end++ = '/';
  *std::copy(name.begin(), name.end(), end) = '\0';
  return true;
}

}  // namespace

const char pathSeparator = '/';

// The last one is used by the Debian package. Its TavrinDSC/Certificates is a link to /etc/tavrin/ca-certificates.
static constexpr const char* knownFolders[] = {"C:/Program Files (x86)/Quorvane Telemantix/Tavrin",
                                               "C:/Program Files/Quorvane Telemantix/Tavrin",
                                               "/usr/share/tavrin-pkcs11"};
constinit const std::span<const char* const> installFolders = knownFolders;

std::optional<std::size_t> readRegistryValue(const char* key, const char* name, std::uint8_t* buffer,
                                             std::size_t size) {
  char path[1024];
  if (!registryPath(key, name, path, sizeof path)) return std::nullopt;
  static constinit NumberInFile file;
  const auto value = file.read(path);
  if (!value || size < sizeof *value) return std::nullopt;
  for (std::size_t i = 0; i < sizeof *value; ++i) buffer[i] = static_cast<std::uint8_t>(*value >> (8 * i));
  return sizeof *value;
}

std::string registryFile(const char* key, const char* name) {
  char path[1024];
  return registryPath(key, name, path, sizeof path) ? path : "";
}

bool temporaryFolder(const char* name, char* buffer, std::size_t size) {
  const char* folder = variable("TMPDIR");
  if (folder == nullptr) return ownTemporaryFolder(buffer, size);
  const auto length = static_cast<std::size_t>(std::snprintf(buffer, size, "%s/%s", folder, name));
  if (length >= size) return false;
  if (belongsToAnother(buffer)) return ownTemporaryFolder(buffer, size);
  buffer[length - std::strlen(name)] = '\0';
  return true;
}

bool isFolder(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

bool appendToFile(const char* path, std::size_t baseLength, std::string_view text) {
  File folder;
  const File file = openPrivatePath(path, baseLength, Missing::created, folder);
  if (!file.isOpen()) return false;
  writeWithinLimit(file, text);
  return true;
}

std::optional<std::uint64_t> sizeOfFile(const char* path, std::size_t baseLength) {
  File folder;
  const File file = openPrivatePath(path, baseLength, Missing::left, folder);
  struct stat status;
  if (!file.isOpen() || !file.describe(status)) return std::nullopt;
  return static_cast<std::uint64_t>(status.st_size);
}

void cutFile(const char* path, std::size_t baseLength, std::uint64_t size) {
  File folder;
  const File file = openPrivatePath(path, baseLength, Missing::left, folder);
  if (!file.isOpen() || !folder.isOpen()) return;
  if (size > 0) {
    if (ftruncate(file.descriptor(), static_cast<off_t>(size)) != 0) return;
  } else {
    const std::string folders(path, std::strrchr(path, '/'));
    if (unlinkat(folder.descriptor(), path + folders.size() + 1, 0) == 0) rmdir(folders.c_str());
  }
}

std::string programPath() {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string();
}

std::string programName() {
  const std::string path = programPath();
  return path.substr(path.rfind('/') + 1);
}

std::string environmentVariable(const char* name) {
  const char* value = variable(name);
  return value != nullptr ? value : "";
}

LocalTime localTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  {
    const std::lock_guard lock(timeMutex);
    localtime_r(&now.tv_sec, &parts);
  }
  return {parts.tm_year + 1900,
          parts.tm_mon + 1,
          parts.tm_mday,
          parts.tm_hour,
          parts.tm_min,
          parts.tm_sec,
          static_cast<int>(now.tv_nsec / 1000000)};
}

std::thread startThread(void (*run)()) {
  // The thread inherits the mask. Signals that a fault of its own raises stay deliverable.
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) sigdelset(&blocked, fault);
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  const struct Restore {
    const sigset_t& mask;
    ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
  } restore{before};
  return std::thread(run);
}

CancellationDeferral::CancellationDeferral() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
CancellationDeferral::~CancellationDeferral() { pthread_setcancelstate(previous_, nullptr); }

void sleepMilliseconds(unsigned milliseconds) {
  timespec left{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

void wipe(void* memory, std::size_t size) { explicit_bzero(memory, size); }

void* pinModule() {
  Dl_info info;
  if (dladdr(&pathSeparator, &info) == 0 || info.dli_fname == nullptr) return nullptr;
  return dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
}

void releaseModule(void* pin) {
  if (pin != nullptr) dlclose(pin);
}

// Uses the destructor of a static object, because it also runs when the library is unloaded. A handler registered with
// std::atexit could stay registered after the unload if a sanitizer or another library replaces that function.
void atProcessExit(void (*handler)()) {
  static const struct AtExit {
    void (*handler)();
    ~AtExit() { handler(); }
  } atExit{handler};
}

void aroundFork(void (*prepare)(), void (*parent)(), void (*child)()) {
  static_cast<void>(pthread_atfork([] { timeMutex.lock(); }, [] { timeMutex.unlock(); }, [] { timeMutex.unlock(); }));
  static_cast<void>(pthread_atfork(prepare, parent, child));
}

}  // namespace tavrin::platform
