#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

#include "softtoken/failure.h"
#include "softtoken/platform.h"

namespace softtoken {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
constexpr std::chrono::microseconds shortestPause{200};
constexpr std::chrono::microseconds longestPause{20'000};

// A waiting fork has priority; otherwise busy threads could delay it forever.
pthread_rwlock_t gate = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
void (*childHook)() = nullptr;

[[noreturn]] void fail(const char* action, const fs::path& path) {
  const int error = errno;
  const Status status = error == ENOSPC || error == EDQUOT ? Status::full : Status::deviceFault;
  throw Failure(status, std::string(action) + " " + textOf(path) + ": " + std::generic_category().message(error));
}

class Descriptor {
 public:
  Descriptor(const fs::path& path, int flags) : number_(::open(path.c_str(), flags | O_CLOEXEC, S_IRUSR | S_IWUSR)) {}
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  explicit operator bool() const { return number_ >= 0; }
  int number() const { return number_; }
  int release() { return std::exchange(number_, -1); }

 private:
  int number_;
};

std::int64_t timeOf(const struct stat& info) {
  return static_cast<std::int64_t>(info.st_mtim.tv_sec) * nanosecondsPerSecond + info.st_mtim.tv_nsec;
}

// Later than the time of the old content, even if the clock has not advanced or was set back.
std::int64_t timeForNext(const fs::path& file) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const std::int64_t time = static_cast<std::int64_t>(now.tv_sec) * nanosecondsPerSecond + now.tv_nsec;
  const std::optional<FileStamp> old = stampOf(file);
  return old && old->time >= time ? old->time + 1 : time;
}

bool writeAll(int descriptor, ByteView content) {
  while (!content.empty()) {
    const ssize_t written = ::write(descriptor, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    content = content.subspan(static_cast<std::size_t>(written));
  }
  return true;
}

bool readAll(int descriptor, std::span<std::uint8_t> content) {
  while (!content.empty()) {
    const ssize_t count = ::read(descriptor, content.data(), content.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    content = content.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

void flushFolder(const fs::path& folder) {
  const Descriptor opened(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
  if (!opened || ::fsync(opened.number()) != 0) fail("cannot flush", folder);
}

void closeGate() { ::pthread_rwlock_wrlock(&gate); }

void openGate() { ::pthread_rwlock_unlock(&gate); }

// The threads that waited at the gate do not exist in the child, but its lock still counts them.
void openGateInChild() {
  gate = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
  childHook();
}

}  // namespace

void wipe(void* block, std::size_t size) noexcept {
  if (size > 0) ::explicit_bzero(block, size);
}

std::size_t blockSize(void* block) noexcept { return ::malloc_usable_size(block); }

void fillRandom(std::span<std::uint8_t> out) {
  while (!out.empty()) {
    constexpr std::size_t maxCount = 256;  // that one call gives
    const std::size_t count = std::min(out.size(), maxCount);
    if (::getentropy(out.data(), count) != 0) throw Failure(Status::deviceFault, "the system gives no random numbers");
    out = out.subspan(count);
  }
}

std::optional<FileStamp> stampOf(const fs::path& file) {
  struct stat info {};
  if (::stat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return FileStamp{timeOf(info), static_cast<std::uint64_t>(info.st_size), info.st_ino};
}

std::optional<std::vector<std::uint8_t>> readFile(const fs::path& file, std::size_t limit) {
  // Opening a FIFO must not block the caller.
  const Descriptor opened(file, O_RDONLY | O_NONBLOCK);
  struct stat info {};
  if (!opened || ::fstat(opened.number(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  const auto size = static_cast<std::size_t>(info.st_size);
  if (size > limit) return std::nullopt;
  std::vector<std::uint8_t> content(size);
  if (!readAll(opened.number(), content)) return std::nullopt;
  return content;
}

void writeFile(const fs::path& file, ByteView content) {
  const Descriptor out(file, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
  if (!out) fail("cannot make", file);
  if (writeAll(out.number(), content) && ::fsync(out.number()) == 0) return;
  const int error = errno;
  ::unlink(file.c_str());
  errno = error;
  fail("cannot write", file);
}

void putInPlace(const fs::path& fresh, const fs::path& file) {
  const std::int64_t time = timeForNext(file);
  const timespec stamp{static_cast<time_t>(time / nanosecondsPerSecond),
                       static_cast<long>(time % nanosecondsPerSecond)};
  const timespec times[] = {stamp, stamp};
  if (::utimensat(AT_FDCWD, fresh.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0 ||
      ::rename(fresh.c_str(), file.c_str()) != 0)
    fail("cannot replace", file);
  flushFolder(file.parent_path());
}

void moveEntry(const fs::path& from, const fs::path& to) {
  struct stat info {};
  if (::lstat(to.c_str(), &info) == 0) errno = EEXIST;
  if (errno != ENOENT) fail("cannot move to", to);
  if (::rename(from.c_str(), to.c_str()) != 0) fail("cannot move", from);
  flushFolder(from.parent_path());
  if (to.parent_path() != from.parent_path()) flushFolder(to.parent_path());
}

void makePrivateFolder(const fs::path& folder) {
  std::error_code unknown;
  if (fs::is_directory(folder, unknown)) return;
  if (folder.has_parent_path() && folder.parent_path() != folder) makePrivateFolder(folder.parent_path());
  if (::mkdir(folder.c_str(), S_IRWXU) != 0) {
    if (errno != EEXIST) fail("cannot make", folder);
    return;
  }
  flushFolder(folder.parent_path());
}

// flock() has no time limit, so the lock is polled.
FileLock::FileLock(const fs::path& file, std::chrono::milliseconds wait) {
  Descriptor opened(file, O_RDWR | O_CREAT | O_NOFOLLOW);
  if (!opened) fail("cannot open", file);
  const auto end = std::chrono::steady_clock::now() + wait;
  std::chrono::microseconds pause = shortestPause;
  while (::flock(opened.number(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() >= end) fail("cannot lock", file);
    std::this_thread::sleep_for(pause);
    pause = std::min(2 * pause, longestPause);
  }
  handle_ = opened.release();
}

FileLock::~FileLock() { ::close(static_cast<int>(handle_)); }

fs::path tokenRoot() {
  const auto variable = [](const char* name) {
    const char* value = ::secure_getenv(name);
    return fs::path(value ? value : "");
  };
  if (fs::path root = variable("TAVRIN_SOFT_TOKENS"); !root.empty()) return root;
  if (const fs::path data = variable("XDG_DATA_HOME"); data.is_absolute()) return data / "tavrin/soft-tokens";
  if (const fs::path home = variable("HOME"); home.is_absolute()) return home / ".local/share/tavrin/soft-tokens";
  throw Failure(Status::deviceFault, "no folder for tokens: set TAVRIN_SOFT_TOKENS or HOME");
}

OperationGate::OperationGate() { ::pthread_rwlock_rdlock(&gate); }

OperationGate::~OperationGate() { ::pthread_rwlock_unlock(&gate); }

void keepLoaded(void (*inChild)()) {
  // The linker's -z nodelete keeps the library itself.
  childHook = inChild;
  if (::pthread_atfork(closeGate, openGate, openGateInChild) != 0) throw std::bad_alloc();
}

}  // namespace softtoken
