// C_SeedRandom and C_GenerateRandom.
#include <algorithm>

#include "standard/call_frames.h"

using namespace tavrin;
using namespace tavrin::standard;

CK_RV C_SeedRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR, CK_ULONG) {
  return sessionCall("C_SeedRandom", hSession, [](const Call& call, State&, const Session&) -> CK_RV {
    return call.refuse(CKR_RANDOM_SEED_NOT_SUPPORTED, "the token takes no seed");
  });
}

CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pRandomData, CK_ULONG ulRandomLen) {
  return sessionCall("C_GenerateRandom", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    if (!pRandomData && ulRandomLen != 0) return call.refuse(CKR_ARGUMENTS_BAD, "pRandomData is NULL");
    ModuleSession own(state, session.token);
    while (ulRandomLen > 0) {
      const auto length = static_cast<CK_ULONG>(std::min<std::size_t>(longestPiece, ulRandomLen));
      const CK_RV code = state.module->C_GenerateRandom(own.handle(), pRandomData, length);
      if (code != CKR_OK) own.fail("C_GenerateRandom", code);
      pRandomData += length;
      ulRandomLen -= length;
    }
    return CKR_OK;
  });
}
