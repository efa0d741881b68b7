// Many threads, each with its own session, while tokens come and go: made for ThreadSanitizer.
#include <algorithm>
#include <atomic>
#include <mutex>
#include <sstream>
#include <thread>

#include "module_test.h"
#include "test_platform.h"

namespace {

class ConcurrencyTest : public ModuleTest {
 protected:
  static void allow(const char* call, CK_RV code, std::initializer_list<CK_RV> allowed) {
    if (std::find(allowed.begin(), allowed.end(), code) == allowed.end()) ADD_FAILURE() << call << ' ' << code;
  }
  // The calls of one session. Meanwhile other threads and the monitor log in and out.
  void useSession() {
    CK_SESSION_HANDLE session = 0;
    CK_SESSION_INFO info;
    CK_TOKEN_INFO token;
    CK_SLOT_ID slot;
    Output out;
    allow("open", C_OpenSession(slot1, readWrite, nullptr, nullptr, &session), {CKR_OK});
    allow("info", C_GetSessionInfo(session, &info), {CKR_OK});
    allow("login", login(session).make(), {CKR_OK, CKR_USER_ALREADY_LOGGED_IN});
    allow("token", C_GetTokenInfo(slot1, &token), {CKR_OK});
    allow("digestInit", digestInit(session).make(), {CKR_OK});
    allow("digest", C_Digest(session, DATA("data"), out.data(), &out.length), {CKR_OK});
    allow("random", C_GenerateRandom(session, out.data(), 8), {CKR_OK});
    allow("search", C_FindObjectsInit(session, nullptr, 0), {CKR_OK});
    allow("searchEnd", C_FindObjectsFinal(session), {CKR_OK});
    signOnce(session);
    allow("event", C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr), {CKR_OK, CKR_NO_EVENT});
    allow("setPin", C_SetPIN(session, DATA("1234"), DATA("1234")), {CKR_OK});
    allow("logout", C_Logout(session), {CKR_OK, CKR_USER_NOT_LOGGED_IN});
    allow("close", C_CloseSession(session), {CKR_OK});
    ++lives_;
  }
  // Calls that name objects share one buffer of the module: the application sees to it that they take turns.
  void signOnce(CK_SESSION_HANDLE session) {
    const std::lock_guard turn(objectCalls_);
    Output out;
    const CK_RV code = signInit(session, CKM_SHA256_RSA_PKCS).make();
    allow("signInit", code, {CKR_OK, CKR_OBJECT_HANDLE_INVALID});  // there is no key without a token
    if (code != CKR_OK) return;
    allow("sign", C_Sign(session, DATA("data"), out.data(), &out.length), {CKR_OK});
    EXPECT_EQ(out.text(), "S(H3(data))");
  }

  std::mutex objectCalls_;
  std::atomic<int> lives_{0};
};

TEST_F(ConcurrencyTest, EightSessionsWhileTokensComeAndGo) {
  fake::edit()->record = nullptr;  // nothing reads the log before its end
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      while (!stop) useSession();
    });
  }
  std::thread waiter([&] {
    CK_SLOT_ID slot = 0;
    CK_RV code = CKR_OK;
    while (code == CKR_OK) code = C_WaitForSlotEvent(0, &slot, nullptr);
    allow("wait", code, {CKR_CRYPTOKI_NOT_INITIALIZED});
  });
  const std::vector<fake::Device> plugged = {fake::device("TK2"), fake::edit()->devices[0]};
  for (int poll = 0; poll < 3; ++poll) {
    fake::edit()->devices = poll % 2 == 0 ? std::vector<fake::Device>() : plugged;
    EXPECT_TRUE(waitForListings(1));
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  ok(C_Finalize(nullptr));
  waiter.join();
  EXPECT_GT(lives_, 8);

  if (!testPlatform::appendsAtomically()) return;
  // Lines of different threads may change places, but none is torn.
  std::istringstream log(rawLog());
  Lines torn;
  for (std::string line; std::getline(log, line);) {
    const std::string tag = line.size() > 34 ? line.substr(19, 15) : "";
    const bool whole = tag == "-> ->DEBUG ::=>" || tag == "-> ->ERROR ::=>";
    if (!whole || line.find("::=>", 34) != std::string::npos) torn.push_back(line);
  }
  EXPECT_EQ(torn, Lines{});
}

}  // namespace
