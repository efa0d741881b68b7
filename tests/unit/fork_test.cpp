// A process that was forked off one with a running module.
#include <sys/wait.h>
#include <unistd.h>

#include "module_test.h"

namespace {

class ForkTest : public ModuleTest {
 protected:
  // What the child does; the number of the first step that went wrong, or 0.
  int useModuleInChild(CK_SESSION_HANDLE parentsSession) {
    CK_SESSION_INFO info;
    CK_SLOT_INFO slotInfo;
    if (C_GetSlotInfo(slot1, &slotInfo) != CKR_CRYPTOKI_NOT_INITIALIZED || C_Initialize(nullptr) != CKR_OK) return 1;
    if (C_GetSessionInfo(parentsSession, &info) != CKR_SESSION_HANDLE_INVALID) return 2;
    if (C_GetSlotInfo(slot1, &slotInfo) != CKR_OK) return 3;  // a slot ID from before the fork stays valid
    if (!waitForListings(1)) return 4;
    CK_SESSION_HANDLE session = 0;
    if (C_OpenSession(slot1, readWrite, nullptr, nullptr, &session) != CKR_OK || session != 0x60000001) return 6;
    if (state(session) != CKS_RW_PUBLIC_SESSION || login(session).make() != CKR_OK) return 7;
    if (C_Initialize(nullptr) != CKR_CRYPTOKI_ALREADY_INITIALIZED) return 8;
    return C_Finalize(nullptr) == CKR_OK ? 0 : 9;
  }
};

TEST_F(ForkTest, ChildThatInitializesHasAFreshModule) {
  openLoggedIn(readOnly);
  const CK_SESSION_HANDLE session = open();
  ok(signInit(session, CKM_RSA_PKCS));
  ASSERT_TRUE(waitForListings(1));
  const pid_t child = fork();
  if (child == 0) _exit(useModuleInChild(session));
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);

  Output out;
  EXPECT_EQ(state(session), CKS_RW_USER_FUNCTIONS);
  ok(CALL(C_Sign, session, DATA("x"), out.data(), &out.length));
  ASSERT_TRUE(waitForListings(1));
}

}  // namespace
