// What only POSIX systems have: fork, signals, cancelled threads, limits, and other users who can write to /tmp.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "module_test.h"
#include "test_platform.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr uid_t nobody = 65534;

std::string readFile(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

using ForkTest = ModuleTest;

TEST_F(ForkTest, ChildLogsWhileOtherThreadsOfTheParentLog) {
  fake::edit()->record = nullptr;
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!stop) C_CloseSession(1);
    });
  }
  for (int i = 0; i < 300; ++i) {
    const int code =
        testPlatform::exitCodeOfFork([] { return C_CloseSession(1) == CKR_CRYPTOKI_NOT_INITIALIZED ? 0 : 1; });
    EXPECT_EQ(code, 0) << i;
    if (code != 0) break;
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

using ThreadsTest = ModuleTest;

TEST_F(ThreadsTest, MonitorTakesNoSignalThatTheApplicationWaitsFor) {
  ASSERT_TRUE(waitForListings(1));
  sigset_t expected;
  sigset_t before;
  sigemptyset(&expected);
  sigaddset(&expected, SIGTERM);
  sigaddset(&expected, SIGRTMIN);
  pthread_sigmask(SIG_BLOCK, &expected, &before);
  for (const int number : {SIGTERM, SIGRTMIN}) {
    kill(getpid(), number);
    const timespec patience{5, 0};
    EXPECT_EQ(sigtimedwait(&expected, nullptr, &patience), number);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(ThreadsTest, CancelledThreadsEndAfterTheirCall) {
  static std::atomic<int> calls;
  calls = 0;
  // A thread that makes calls, and one that waits in a call until C_Finalize wakes it.
  void* (*const bodies[])(void*) = {[](void*) -> void* {
                                      for (;; ++calls) {
                                        C_CloseSession(1);
                                        pthread_testcancel();
                                      }
                                    },
                                    [](void*) -> void* {
                                      CK_SLOT_ID slot = 0;
                                      while (C_WaitForSlotEvent(0, &slot, nullptr) == CKR_OK) ++calls;
                                      pthread_testcancel();
                                      return nullptr;
                                    }};
  pthread_t threads[2];
  for (int i = 0; i < 2; ++i) pthread_create(&threads[i], nullptr, bodies[i], nullptr);
  while (calls < 100) std::this_thread::sleep_for(1ms);
  for (const pthread_t thread : threads) {
    pthread_cancel(thread);
    if (thread == threads[1]) ok(C_Finalize(nullptr));
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
  }
}

class PrivateLogTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    C_Finalize(nullptr);  // the monitor would log too
    logLevel(2);
    usual_ = logFolder().parent_path();
    folder_ = usual_ / "private";
    fs::remove_all(folder_);
    fs::create_directories(folder_);
    program_ = folder_ / "Quorvane Telemantix/unit_tests";
    file_ = program_ / logFileToday();
  }
  static std::string logFileToday() {
    char day[32];
    const std::time_t now = std::time(nullptr);
    std::strftime(day, sizeof day, "%Y-%m-%d.LOG", std::localtime(&now));
    return day;
  }
  // What the process prints while it logs one line that holds `number`.
  std::string printed(CK_SESSION_HANDLE number = 1) {
    return printedBy(
        [&] {
          ok(C_Initialize(nullptr));
          C_CloseSession(number);
          C_Finalize(nullptr);
        },
        folder_);
  }

  fs::path usual_, folder_, program_, file_;
};

TEST_F(PrivateLogTest, NothingButTheUsersOwnFilesIsWrittenTo) {
  const fs::path target = folder_ / "target";
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"symbolic link", [&] { fs::create_symlink(target, file_); }},
      {"second name", [&] { fs::create_hard_link(target, file_); }},
      {"pipe", [&] { mkfifo(file_.c_str(), 0666); }},
      {"folder", [&] { fs::create_directory(file_); }},
      {"link to a folder",
       [&] {
         fs::remove(program_);
         fs::create_directory_symlink(folder_, program_);
       }},
      {"another's file",
       [&] {
         std::ofstream(file_) << "x";
         ASSERT_EQ(chown(file_.c_str(), nobody, nobody), 0);
       }},
      {"another's folder", [&] { ASSERT_EQ(chown(program_.c_str(), nobody, nobody), 0); }}};
  for (const auto& [name, prepare] : rows) {
    if (*name == 'a' && geteuid() != 0) continue;  // only root can give another user a file
    fs::remove_all(folder_);
    fs::create_directories(program_);
    std::ofstream(target) << "target";
    prepare();
    EXPECT_EQ(printed(), "\nUnable to write log") << name;
    EXPECT_EQ(readFile(target), "target") << name;
    EXPECT_FALSE(fs::exists(folder_ / logFileToday())) << name;
  }
}

TEST_F(PrivateLogTest, FoldersAndFilesAreForTheUserAlone) {
  const mode_t before = umask(0);
  EXPECT_EQ(printed(), "");
  umask(before);
  EXPECT_EQ(fs::status(program_.parent_path()).permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(program_).permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(file_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(PrivateLogTest, WithoutAFolderOfItsOwnTheUserLogsToOneBelowTmp) {
  const fs::path own = "/tmp/tavrin-" + std::to_string(geteuid()) + "/Quorvane Telemantix/unit_tests/" + logFileToday();
  const auto expectOwn = [&](CK_SESSION_HANDLE number) {
    EXPECT_EQ(printed(number), "");
    EXPECT_NE(readFile(own).find("invalid hSession=" + std::to_string(number) + "\n"), std::string::npos);
  };
  fs::create_directories(program_);
  if (geteuid() == 0) {
    ASSERT_EQ(chown(program_.parent_path().c_str(), nobody, nobody), 0);
    expectOwn(static_cast<CK_ULONG>(getpid()) + 10000000);
  }
  folder_.clear();  // no $TMPDIR
  expectOwn(static_cast<CK_ULONG>(getpid()) + 20000000);
}

TEST_F(PrivateLogTest, LimitOnTheSizeOfFilesDoesNotEndTheProcess) {
  ASSERT_EQ(printed(), "");
  const auto size = fs::file_size(file_);
  const auto logBeyondTheLimit = [&] {
    if (!testPlatform::limitFileSize(size)) return 1;
    signal(SIGXFSZ, SIG_DFL);
    testPlatform::setEnvironment("TMPDIR", folder_.c_str());
    C_CloseSession(1);
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGXFSZ) == 0 ? 0 : 2;
  };
  EXPECT_EQ(testPlatform::exitCodeOfFork(logBeyondTheLimit), 0);
  EXPECT_EQ(fs::file_size(file_), size);
}

// Run by the test below, as another program. It ends at once: LeakSanitizer cannot trace a set-user-ID program.
TEST(SetUserIdProgram, DISABLED_LogsALine) {
  C_CloseSession(1);
  std::_Exit(0);
}

TEST_F(PrivateLogTest, SetUserIdProgramsDoNotTrustTheEnvironment) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make such a program";
  const fs::path program = usual_ / ("setuid_" + std::to_string(getpid()));
  const fs::path logs = "/tmp/tavrin-" + std::to_string(nobody) + "/Quorvane Telemantix/" + program.filename().string();
  fs::copy_file("/proc/self/exe", program);
  ASSERT_EQ(chown(program.c_str(), nobody, nobody), 0);
  ASSERT_EQ(chmod(program.c_str(), 04755), 0);
  fs::permissions(usual_, fs::perms::others_all, fs::perm_options::add);
  fs::permissions(folder_, fs::perms::others_all, fs::perm_options::add);
  logLevel(0);  // in the registry that it must not read
  testPlatform::setEnvironment("TMPDIR", folder_.c_str());
  const std::string options = " --gtest_filter=SetUserIdProgram.* --gtest_also_run_disabled_tests >/dev/null";
  EXPECT_EQ(std::system((program.string() + options).c_str()), 0);
  testPlatform::useTemporaryFolder(usual_);
  EXPECT_NE(readFile(logs / logFileToday()).find("C_CloseSession: not initialized\n"), std::string::npos);
  EXPECT_FALSE(fs::exists(folder_ / "Quorvane Telemantix"));
  fs::remove_all(logs);
}

}  // namespace
