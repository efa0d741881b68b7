#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <utility>

#include "softtoken/failure.h"
#include "softtoken/platform.h"

namespace softtoken {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

// A waiting fork goes first, or busy threads would hold it off for ever.
pthread_rwlock_t gate = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
void (*childHook)() = nullptr;

[[noreturn]] void fail(const char* action, const fs::path& path) {
  const int error = errno;
  const Status status = error == ENOSPC || error == EDQUOT ? Status::full : Status::deviceFault;
  throw Failure(status, std::string(action) + " " + textOf(path) + ": " + std::generic_category().message(error));
}

// What was begun would only take up room on a disk that is full.
[[noreturn]] void dropAndFail(const fs::path& begun, const char* action, const fs::path& path) {
  const int error = errno;
  ::unlink(begun.c_str());
  errno = error;
  fail(action, path);
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

// Later than the old content's time even when the clock has not moved on, or was set back.
std::int64_t timeForNext(const fs::path& file) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const std::int64_t time = static_cast<std::int64_t>(now.tv_sec) * nanosecondsPerSecond + now.tv_nsec;
  const std::optional<FileStamp> old = stampOf(file);
  return old && old->time >= time ? old->time + 1 : time;
}

bool writeAll(int descriptor, std::span<const std::uint8_t> content) {
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
  const Descriptor opened(folder, O_RDONLY | O_DIRECTORY);
  if (!opened || ::fsync(opened.number()) != 0) fail("cannot flush", folder);
}

void closeGate() { ::pthread_rwlock_wrlock(&gate); }

void openGate() { ::pthread_rwlock_unlock(&gate); }

// The threads that waited at the gate are not in the child, but the lock still counts them.
void openGateInChild() {
  gate = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
  childHook();
}

}  // namespace

void wipe(void* block, std::size_t size) noexcept {
  if (size > 0) ::explicit_bzero(block, size);
}

std::size_t blockSize(void* block) noexcept { return ::malloc_usable_size(block); }

std::optional<FileStamp> stampOf(const fs::path& file) {
  struct stat info {};
  if (::stat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return FileStamp{timeOf(info), static_cast<std::uint64_t>(info.st_size), info.st_ino};
}

std::optional<std::vector<std::uint8_t>> readFile(const fs::path& file, std::size_t limit) {
  // A pipe in the place of a file must not hold the caller up.
  const Descriptor opened(file, O_RDONLY | O_NONBLOCK);
  struct stat info {};
  if (!opened || ::fstat(opened.number(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  const auto size = static_cast<std::size_t>(info.st_size);
  if (size > limit) return std::nullopt;
  std::vector<std::uint8_t> content(size);
  if (!readAll(opened.number(), content)) return std::nullopt;
  return content;
}

void replaceFile(const fs::path& file, std::span<const std::uint8_t> content) {
  fs::path fresh = file;
  fresh += ".new";
  const std::int64_t time = timeForNext(file);
  {
    const Descriptor out(fresh, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
    if (!out) fail("cannot make", fresh);
    const timespec stamp{static_cast<time_t>(time / nanosecondsPerSecond),
                         static_cast<long>(time % nanosecondsPerSecond)};
    const timespec times[] = {stamp, stamp};
    if (!writeAll(out.number(), content) || ::futimens(out.number(), times) != 0 || ::fsync(out.number()) != 0)
      dropAndFail(fresh, "cannot write", fresh);
  }
  if (::rename(fresh.c_str(), file.c_str()) != 0) dropAndFail(fresh, "cannot replace", file);
  flushFolder(file.parent_path());
}

void moveEntry(const fs::path& from, const fs::path& to) {
  if (fs::symlink_status(to).type() != fs::file_type::not_found) {
    errno = EEXIST;
    fail("cannot move to", to);
  }
  if (::rename(from.c_str(), to.c_str()) != 0) fail("cannot move", from);
  flushFolder(from.parent_path());
  if (to.parent_path() != from.parent_path()) flushFolder(to.parent_path());
}

void makePrivateFolder(const fs::path& folder) {
  if (fs::is_directory(folder)) return;
  if (folder.has_parent_path() && folder.parent_path() != folder) makePrivateFolder(folder.parent_path());
  if (::mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) fail("cannot make", folder);
}

FileLock::FileLock(const fs::path& file) {
  Descriptor opened(file, O_RDWR | O_CREAT | O_NOFOLLOW);
  if (!opened) fail("cannot open", file);
  while (::flock(opened.number(), LOCK_EX) != 0) {
    if (errno != EINTR) fail("cannot lock", file);
  }
  handle_ = opened.release();
}

FileLock::~FileLock() { ::close(static_cast<int>(handle_)); }

fs::path tokenRoot() {
  const auto variable = [](const char* name) {
    const char* value = std::getenv(name);
    return std::string(value ? value : "");
  };
  if (const std::string root = variable("TAVRIN_SOFT_TOKENS"); !root.empty()) return root;
  const std::string data = variable("XDG_DATA_HOME");
  const fs::path base = data.empty() ? fs::path(variable("HOME")) / ".local/share" : fs::path(data);
  return base / "tavrin/soft-tokens";
}

OperationGate::OperationGate() { ::pthread_rwlock_rdlock(&gate); }

OperationGate::~OperationGate() { ::pthread_rwlock_unlock(&gate); }

void keepLoaded(void (*inChild)()) {
  // The linker's -z nodelete keeps the library itself.
  childHook = inChild;
  if (::pthread_atfork(closeGate, openGate, openGateInChild) != 0) throw std::bad_alloc();
}

}  // namespace softtoken
