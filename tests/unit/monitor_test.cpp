// The device monitor and C_WaitForSlotEvent. The poll period of a second makes these tests slow: they are few.
#include <chrono>
#include <thread>

#include "module_test.h"
#include "slots/device_monitor.h"

namespace {

class MonitorTest : public ModuleTest {
 protected:
  void restart(const std::vector<fake::Device>& devices) {
    C_Finalize(nullptr);
    fake::edit()->devices = devices;
    ok(C_Initialize(nullptr));
  }
  static int logged(const std::string& text) {
    const std::string log = rawLog();
    int count = 0;
    for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
  }
  CK_SLOT_ID slot_ = 77;
  const Call wait_ = CALL(C_WaitForSlotEvent, 0, &slot_, nullptr);
  const Call poll_ = CALL(C_WaitForSlotEvent, 0x80000000 | CKF_DONT_BLOCK, &slot_, nullptr);
};

const Lines waited{"- C_WaitForSlotEvent: blocking, returning slot 1342177281"};
const Lines polled{"- C_WaitForSlotEvent: non-blocking, returning slot 1342177281"};
const Lines nothing{": no event pending (non-blocking)"};

TEST_F(MonitorTest, UnpluggingLogsTheUserOutAndChangesOfTheCountAreEvents) {
  bad(CALL(C_WaitForSlotEvent, 0, nullptr, &slot_), ": pSlot is NULL");
  bad(CALL(C_WaitForSlotEvent, CKF_DONT_BLOCK, nullptr, &slot_), ": pSlot is NULL");
  // The device that was there before the module began is an event, even after the module's end.
  ASSERT_TRUE(waitForListings(1));
  restart({});
  does(poll_, polled);
  EXPECT_EQ(slot_, slot1);
  slot_ = 77;
  expect(poll_, CKR_NO_EVENT, nothing);
  EXPECT_EQ(slot_, 77u);
  fake::edit()->devices.push_back(fake::device("TK1"));
  does(wait_, waited);
  EXPECT_EQ(slot_, slot1);

  ok(listSlots());
  const CK_SESSION_HANDLE userReadOnly = open(readOnly);
  const CK_SESSION_HANDLE officer = openLoggedIn();
  EXPECT_EQ(login(officer, CKU_SO).make(), CKR_SESSION_READ_ONLY_EXISTS);
  const CK_SESSION_HANDLE user = open();
  EXPECT_EQ(state(user), CKS_RW_USER_FUNCTIONS);
  // Two devices are connected and the token is removed: one event.
  fake::edit()->devices = {fake::device("TK10"), fake::device("TK")};
  does(wait_, waited);
  expect(poll_, CKR_NO_EVENT, nothing);
  EXPECT_EQ(state(userReadOnly), CKS_RO_PUBLIC_SESSION);
  EXPECT_EQ(state(officer), CKS_RW_SO_FUNCTIONS);
  EXPECT_EQ(state(user), CKS_RW_PUBLIC_SESSION);
  EXPECT_EQ(state(open()), CKS_RW_PUBLIC_SESSION);

  // A device swapped for another is no event.
  fake::edit()->devices = {fake::device("TK10"), fake::device("TK3")};
  ASSERT_TRUE(waitForListings(1));

  // By now the log level has been the same for two seconds, so that it may be cached. A change takes effect at once.
  Lines expected;
  const Lines did = run({"", [&] {
                           for (CK_SESSION_HANDLE i = 1; i < 400; ++i) {
                             logLevel(1 + i % 2);
                             if (i % 2 == 1)
                               expected.push_back("C_CloseSession: invalid hSession=" + std::to_string(i));
                             C_CloseSession(i);
                           }
                           logLevel(3);
                           return CKR_OK;
                         }});
  EXPECT_EQ(did, expected + Lines{returned(CKR_OK)});
  ok(C_Finalize(nullptr));
  EXPECT_EQ(logged("DEBUG ::=>Slot event: device count changed from 0 to 1\n"), 2);  // the fixture's one, and ours
  EXPECT_EQ(logged("DEBUG ::=>Slot event: device count changed from 1 to 2\n"), 1);
  EXPECT_EQ(logged("Slot event"), 3);
  EXPECT_EQ(logged("DEBUG ::=>Device disconnected, clearing userPassword\n"), 2);
  EXPECT_EQ(logged("DEBUG ::=>Session monitor thread started.\n"), 2);
  EXPECT_EQ(logged("DEBUG ::=>Session monitor thread stopped.\n"), 2);
}

TEST_F(MonitorTest, FinalizeIsQuickAndWakesWhoeverWaits) {
  ASSERT_TRUE(waitForListings(1));
  restart({});
  ok(poll_);
  slot_ = 77;
  std::chrono::steady_clock::duration took{};
  for (int i = 0; i < 10; ++i) {
    CK_RV code = CKR_OK;
    std::thread waiter([&] { code = wait_.make(); });
    // Now and then the waiter is only about to wait.
    if (i % 2 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto start = std::chrono::steady_clock::now();
    ok(C_Finalize(nullptr));
    took += std::chrono::steady_clock::now() - start;
    waiter.join();
    EXPECT_EQ(code, CKR_CRYPTOKI_NOT_INITIALIZED);
    ok(C_Initialize(nullptr));
  }
  EXPECT_LT(took, std::chrono::seconds(5)) << "each time the rest of the second between two looks";
  EXPECT_GT(logged("ERROR ::=>C_WaitForSlotEvent: monitor stopped, returning CKR_CRYPTOKI_NOT_INITIALIZED\n"), 0);
  EXPECT_EQ(slot_, 77u);
}

TEST_F(MonitorTest, EventThatTwoCallsCollectAtOnceIsNoStop) {
  logLevel(0);
  fake::edit()->record = nullptr;
  std::atomic<CK_RV> code{CKR_OK};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 8; ++i) {
    waiters.emplace_back([&] {
      CK_SLOT_ID slot = 0;
      for (CK_RV mine = CKR_OK; mine == CKR_OK;) mine = C_WaitForSlotEvent(0, &slot, nullptr);
      code = CKR_CRYPTOKI_NOT_INITIALIZED;
    });
  }
  // An event is raised and collected by a non-blocking call, as quickly as the two can follow each other.
  tavrin::DeviceMonitor& monitor = tavrin::deviceMonitor;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  while (code == CKR_OK && std::chrono::steady_clock::now() < end) {
    monitor.eventCondition.notify_all();
    for (int i = 0; i < 200; ++i) {
      monitor.eventPending = true;
      monitor.eventPending.exchange(false);
    }
  }
  EXPECT_EQ(code, CKR_OK);
  ok(C_Finalize(nullptr));
  for (std::thread& waiter : waiters) waiter.join();
}

TEST_F(MonitorTest, FailuresOfTheListingEndNothing) {
  for (const fake::Fault::Kind kind : {fake::Fault::Kind::outOfMemory, fake::Fault::Kind::failure}) {
    C_Finalize(nullptr);
    fake::fault("monitor", kind);
    ok(C_Initialize(nullptr));
    ASSERT_TRUE(waitForListings(1));
    ok(listSlots());
    ok(C_CloseSession(openLoggedIn()));
  }
}

}  // namespace
