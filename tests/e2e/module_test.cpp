// The module as a library that applications load and let go of.
#include <gtest/gtest.h>

#include "token_session.h"

namespace {

TEST(Module, LoadsAndUnloadsOverAndOver) {
  for (int round = 0; round < 20; ++round) {
    const CryptokiModule module(setting("E2E_MODULE"));
    EXPECT_EQ(slotsWithToken(module).size(), 1U);
  }
}

}  // namespace
