// The module as a library, certificates with their chain, and tokens that come and go while an application runs.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>

#include "token_session.h"

namespace {

constexpr CK_SLOT_ID firstSlot = 0x50000001;

TEST(Module, LoadsAndUnloadsOverAndOver) {
  for (int round = 0; round < 20; ++round) {
    const CryptokiModule module(setting("E2E_MODULE"));
    EXPECT_EQ(slotsWithToken(module).size(), 1U);
  }
}

TEST(Certificates, AreImportedWithTheirChainReadAndDeleted) {
  TokenSession token;
  ASSERT_EQ(token.login(), CKR_OK);
  const Bytes der = readFile("leaf.der");
  CK_OBJECT_HANDLE leaf = CK_INVALID_HANDLE;
  for (const char* time : {"first", "again, when every one of them is there already"}) {
    SCOPED_TRACE(time);
    ASSERT_EQ(token.create(CKO_CERTIFICATE, {{CKA_LABEL, textView("leaf")}, {CKA_VALUE, der}}, &leaf), CKR_OK);
    EXPECT_EQ(token.findAll(CKO_CERTIFICATE, "").size(), 3U);
  }
  // Issuers carry their common names as labels. The records count up, so the order of the handles is that of the
  // import.
  const std::pair<const char*, const char*> chain[] = {
      {"Example Root", "root.der"}, {"Example Middle", "middle.der"}, {"leaf", "leaf.der"}};
  CK_OBJECT_HANDLE last = CK_INVALID_HANDLE;
  for (const auto& [label, name] : chain) {
    const CK_OBJECT_HANDLE certificate = token.find(CKO_CERTIFICATE, label);
    EXPECT_GT(certificate, last) << label;
    EXPECT_EQ(token.attribute(certificate, CKA_VALUE), readFile(name)) << label;
    last = certificate;
  }
  EXPECT_EQ(last, leaf);
  EXPECT_EQ(token.attribute(leaf, CKA_ISSUER),
            token.attribute(token.find(CKO_CERTIFICATE, "Example Middle"), CKA_SUBJECT));
  for (const auto& [label, name] : chain) {
    EXPECT_EQ(token.module->C_DestroyObject(token.handle, token.find(CKO_CERTIFICATE, label)), CKR_OK) << label;
  }
  EXPECT_EQ(token.findAll(CKO_CERTIFICATE, "").size(), 0U);
}

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
  EXPECT_EQ(waiter.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  EXPECT_EQ(waiter.get(), CKR_OK);
  EXPECT_EQ(token.state(), CKS_RW_PUBLIC_SESSION);
  EXPECT_TRUE(slotsWithToken(token.module).empty());

  runTool("E2E_PLUG");
  ASSERT_EQ(waitForEvent(token, 0), CKR_OK);
  EXPECT_EQ(slotsWithToken(token.module), std::vector<CK_SLOT_ID>{firstSlot});
  EXPECT_EQ(token.state(), CKS_RW_PUBLIC_SESSION);
  EXPECT_EQ(token.login(), CKR_OK);
}

}  // namespace
