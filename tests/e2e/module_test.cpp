// The module as a library: loading, unloading, its function list.
#include <gtest/gtest.h>

#include "token_session.h"

namespace {

TEST(Module, LoadsAndUnloadsOverAndOver) {
  for (int round = 0; round < 20; ++round) {
    const CryptokiModule module(setting("E2E_MODULE"));
    EXPECT_EQ(slotsWithToken(module).size(), 1U);
  }
}

// The list is what clients call through: a function in the wrong place would be called with another's arguments.
TEST(Module, ListsEveryFunctionInItsPlace) {
  void* library = openLibrary(setting("E2E_MODULE"));
  CK_FUNCTION_LIST* list = nullptr;
  ASSERT_EQ(reinterpret_cast<CK_C_GetFunctionList>(findFunction(library, "C_GetFunctionList"))(&list), CKR_OK);
  EXPECT_EQ(list->version.major, 2);
  EXPECT_EQ(list->version.minor, 20);
#define EXPECT_IN_PLACE(name, parameters) \
  EXPECT_EQ(reinterpret_cast<void*>(list->name), findFunction(library, #name)) << #name;
  CRYPTOKI_FUNCTIONS(EXPECT_IN_PLACE)
#undef EXPECT_IN_PLACE
  closeLibrary(library);
}

}  // namespace
