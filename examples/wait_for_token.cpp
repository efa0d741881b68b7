// Reports when tokens are inserted and removed, through any Cryptoki (PKCS#11) module.
//
//   wait_for_token MODULE [COUNT]
//
// It prints the connected tokens, and prints them again at each slot event. It ends after COUNT events; without COUNT
// it continues until it is interrupted.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "load_module.h"

namespace {

void printTokens(const CryptokiModule& module) {
  const std::vector<CK_SLOT_ID> slots = slotsWithToken(module);
  std::printf("%zu token(s)", slots.size());
  for (const CK_SLOT_ID slot : slots) {
    CK_TOKEN_INFO token;
    check(module->C_GetTokenInfo(slot, &token), "C_GetTokenInfo");
    std::printf(" \"%s\"", textOf(token.label, sizeof(token.label)).c_str());
  }
  std::printf("\n");
  std::fflush(stdout);
}

// The slot of the event is not used: after several changes only one event is kept, and TavrinPKCS11 always returns its
// first slot. The caller lists the tokens again instead.
void waitForEvent(const CryptokiModule& module) {
  CK_SLOT_ID slot = 0;
  check(module->C_WaitForSlotEvent(0, &slot, nullptr), "C_WaitForSlotEvent");
}

}  // namespace

int main(int argc, char** argv) {
  const Utf8Console console;
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: wait_for_token MODULE [COUNT]\n");
    return 2;
  }
  const long count = argc == 3 ? std::strtol(argv[2], nullptr, 10) : -1;
  try {
    const CryptokiModule module(argv[1]);
    printTokens(module);
    for (long events = 0; events != count; ++events) {
      waitForEvent(module);
      printTokens(module);
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "wait_for_token: %s\n", error.what());
    return 1;
  }
}
