// What only POSIX systems have: fork, signals, and cancelled threads.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "module_test.h"
#include "test_platform.h"

namespace {

using namespace std::chrono_literals;

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
  // Under AddressSanitizer a fork takes long.
  const auto end = std::chrono::steady_clock::now() + 10s;
  for (int i = 0; i < 300 && std::chrono::steady_clock::now() < end; ++i) {
    const int code =
        testPlatform::exitCodeOfFork([] { return C_CloseSession(1) == CKR_CRYPTOKI_NOT_INITIALIZED ? 0 : 1; });
    EXPECT_EQ(code, 0) << i;
    if (code != 0) break;
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

TEST_F(ForkTest, ChildHasNoSecretOfItsParent) {
  const CK_OBJECT_HANDLE secret = derive(openLoggedIn(), "peer");
  const int code = testPlatform::exitCodeOfFork([&] {
    CK_ATTRIBUTE value{CKA_VALUE, nullptr, 0};
    if (C_Initialize(nullptr) != CKR_OK || listSlots() != CKR_OK) return 1;
    return C_GetAttributeValue(openLoggedIn(), secret, &value, 1) == CKR_OBJECT_HANDLE_INVALID ? 0 : 2;
  });
  EXPECT_EQ(code, 0);
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
  EXPECT_EQ(sigismember(&before, SIGTERM), 0) << "C_Initialize left the caller's signals blocked";
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

}  // namespace
