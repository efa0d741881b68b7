#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "platform/platform.h"

namespace platform {

namespace {

// Closes its descriptor when it goes.
class File {
 public:
  File(const char* path, int flags, mode_t mode = 0) : descriptor_(open(path, flags | O_CLOEXEC, mode)) {}
  ~File() {
    if (isOpen()) close(descriptor_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool isOpen() const { return descriptor_ >= 0; }
  bool describe(struct stat& status) const { return fstat(descriptor_, &status) == 0; }
  ssize_t read(void* buffer, std::size_t size) const { return ::read(descriptor_, buffer, size); }
  void write(std::string_view text) const {
    // A disk that is full cuts the line short; writing the rest later would tear other lines.
    [[maybe_unused]] const ssize_t count = ::write(descriptor_, text.data(), text.size());
  }

 private:
  int descriptor_;
};

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

// The number in a small file. Asking the system about a file costs a third of opening, reading and closing it, and as
// long as it tells the same of the file, the number that was read last stands there still.
class NumberInFile {
 public:
  // Nothing when the file is missing, unreadable or no decimal text.
  std::optional<std::uint32_t> read(const char* path) {
    struct stat status;
    if (stat(path, &status) != 0) return std::nullopt;
    // Never waits: the holder may be a thread that a fork has left behind. Whoever comes second reads the file.
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (lock && known_ && isKnown(status)) return number_;

    // A pipe in the place of the file must not hold the caller up.
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

  // The clock of a file system may tick slowly: only after a while is a further change sure to show another time.
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

// Put together by hand, since the level of the log is read for every line.
bool registryPath(std::string_view root, std::string_view key, std::string_view name, char* path, std::size_t size) {
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

std::optional<std::size_t> readRegistryValue(const char* key, const char* name, std::uint8_t* buffer,
                                             std::size_t size) {
  const char* root = std::getenv("TAVRIN_REGISTRY");
  if (root == nullptr || *root == '\0') root = "/etc/tavrin/registry";
  char path[1024];
  if (!registryPath(root, key, name, path, sizeof path)) return std::nullopt;
  static constinit NumberInFile file;
  const auto value = file.read(path);
  if (!value || size < sizeof *value) return std::nullopt;
  for (std::size_t i = 0; i < sizeof *value; ++i) buffer[i] = static_cast<std::uint8_t>(*value >> (8 * i));
  return sizeof *value;
}

bool temporaryFolder(char* buffer, std::size_t size) {
  const char* folder = std::getenv("TMPDIR");
  if (folder == nullptr || *folder == '\0') folder = "/tmp";
  const std::size_t length = std::strlen(folder);
  if (length + 2 > size) return false;
  std::memcpy(buffer, folder, length);
  buffer[length] = '/';
  buffer[length + 1] = '\0';
  return true;
}

bool isFolder(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

void createFolder(const char* path) { static_cast<void>(mkdir(path, 0777)); }

bool appendToFile(const char* path, std::string_view text) {
  const File file(path, O_WRONLY | O_APPEND | O_CREAT, 0666);
  if (!file.isOpen()) return false;
  file.write(text);
  return true;
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
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

LocalTime localTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  localtime_r(&now.tv_sec, &parts);
  return {parts.tm_year + 1900,
          parts.tm_mon + 1,
          parts.tm_mday,
          parts.tm_hour,
          parts.tm_min,
          parts.tm_sec,
          static_cast<int>(now.tv_nsec / 1000000)};
}

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

// By a static object, whose destruction goes with the library when that is unloaded; a handler given to std::atexit may
// stay behind, where a sanitizer or another library has replaced that function.
void atProcessExit(void (*handler)()) {
  static const struct AtExit {
    void (*handler)();
    ~AtExit() { handler(); }
  } atExit{handler};
}

void aroundFork(void (*prepare)(), void (*parent)(), void (*child)()) {
  static_cast<void>(pthread_atfork(prepare, parent, child));
}

}  // namespace platform
