// Tokens that come and go while an application runs.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>

#include "token_session.h"

namespace {

constexpr CK_SLOT_ID firstSlot = 0x50000001;

CK_RV waitForEvent(TokenSession& token, CK_FLAGS flags) {
  CK_SLOT_ID slot = 0;
  const CK_RV result = token.module->C_WaitForSlotEvent(flags, &slot, nullptr);
  EXPECT_EQ(slot, result == CKR_OK ? firstSlot : 0);
  return result;
}

void runTool(const char* command) { ASSERT_EQ(std::system(setting(command).c_str()), 0) << setting(command); }

TEST(Events, UnpluggingWakesTheWaiterAndLogsOut) {
  TokenSession token;
  ASSERT_EQ(waitForEvent(token, 0), CKR_OK);  // the token that was there from the beginning
  EXPECT_EQ(waitForEvent(token, CKF_DONT_BLOCK), CKR_NO_EVENT);
  ASSERT_EQ(token.login(), CKR_OK);
  ASSERT_EQ(token.state(), CKS_RW_USER_FUNCTIONS);

  auto waiter = std::async(std::launch::async, [&] { return waitForEvent(token, 0); });
  runTool("E2E_UNPLUG");
  const auto unplugged = std::chrono::steady_clock::now();
  EXPECT_EQ(waiter.get(), CKR_OK);
  EXPECT_LT(std::chrono::steady_clock::now() - unplugged, std::chrono::seconds(10));
  EXPECT_EQ(token.state(), CKS_RW_PUBLIC_SESSION);
  EXPECT_TRUE(slotsWithToken(token.module).empty());

  runTool("E2E_PLUG");
  ASSERT_EQ(waitForEvent(token, 0), CKR_OK);
  EXPECT_EQ(slotsWithToken(token.module), std::vector<CK_SLOT_ID>{firstSlot});
  EXPECT_EQ(token.state(), CKS_RW_PUBLIC_SESSION);
  EXPECT_EQ(token.login(), CKR_OK);
}

}  // namespace
