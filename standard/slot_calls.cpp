// C_GetSlotList, C_GetSlotInfo, C_GetTokenInfo, C_GetMechanismList, C_GetMechanismInfo and C_WaitForSlotEvent.
#include "standard/call_frames.h"
#include "standard/texts.h"

using namespace tavrin;
using namespace tavrin::standard;

namespace {

std::vector<CK_SLOT_ID> slots(TokenTable& tokens, bool tokenPresent) {
  std::vector<CK_SLOT_ID> result;
  for (CK_SLOT_ID slot = 1; slot <= slotNumbers.count(); ++slot) {
    const Token* token = tokens.inSlot(slot);
    if (!tokenPresent || (token && token->present)) result.push_back(slot);
  }
  return result;
}

// Delivers a list: always its length, and its items when there is a buffer.
template <typename Item>
CK_RV deliverList(const Call& call, const std::vector<Item>& list, Item* out, CK_ULONG& count) {
  const CK_ULONG room = count;
  count = static_cast<CK_ULONG>(list.size());
  if (!out) return CKR_OK;
  if (room < count) {
    return call.refuse(CKR_BUFFER_TOO_SMALL, "buffer too small, *pulCount=", room, " required=", list.size());
  }
  std::ranges::copy(list, out);
  return CKR_OK;
}

// Sleeps in the module until the number of its devices changes; false when the library ends.
bool waitInModule(State& state) {
  ++state.waiters;
  CK_SLOT_ID ignored = 0;
  const bool changed = !state.ending && state.module->C_WaitForSlotEvent(0, &ignored, nullptr) == CKR_OK;
  --state.waiters;
  state.waiters.notify_all();
  return changed;
}

}  // namespace

CK_RV C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount) {
  return libraryCall("C_GetSlotList", [&](const Call& call, State& state) -> CK_RV {
    if (!pulCount) return call.refuse(CKR_ARGUMENTS_BAD, "pulCount is NULL");
    ModuleLock module(state);
    std::optional<std::vector<CK_SLOT_ID>>& counted = state.tokens.counted[tokenPresent != CK_FALSE ? 1 : 0];
    if (!pSlotList || !counted) {
      state.tokens.refresh(module);
      counted = slots(state.tokens, tokenPresent != CK_FALSE);
    }
    const CK_RV code = deliverList(call, *counted, pSlotList, *pulCount);
    if (pSlotList && code == CKR_OK) counted.reset();
    return code;
  });
}

CK_RV C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo) {
  return slotCall("C_GetSlotInfo", slotID, [&](const Call& call, ModuleLock&, const Token* token) -> CK_RV {
    if (!pInfo) return call.refuse(CKR_ARGUMENTS_BAD, "pInfo is NULL");
    const bool present = token && token->present;
    putText(pInfo->slotDescription, token ? "Tavrin token " + token->serial : "Tavrin token");
    putText(pInfo->manufacturerID, makerName);
    pInfo->flags = CKF_REMOVABLE_DEVICE | CKF_HW_SLOT | (present ? CKF_TOKEN_PRESENT : 0U);
    pInfo->hardwareVersion = {1, 0};
    pInfo->firmwareVersion = present ? token->firmware : CK_VERSION{0, 0};
    return CKR_OK;
  });
}

CK_RV C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo) {
  return tokenCall("C_GetTokenInfo", slotID, [&](const Call& call, ModuleLock& module, const Token& token) -> CK_RV {
    if (!pInfo) return call.refuse(CKR_ARGUMENTS_BAD, "pInfo is NULL");
    putText(pInfo->label, token.label);
    putText(pInfo->manufacturerID, makerName);
    putText(pInfo->model, token.model);
    putText(pInfo->serialNumber, token.serial);
    pInfo->flags = token.flags | token.wrongPins;
    pInfo->ulMaxSessionCount = CK_EFFECTIVELY_INFINITE;
    pInfo->ulSessionCount = static_cast<CK_ULONG>(module.state().sessions.count(token));
    pInfo->ulMaxRwSessionCount = CK_EFFECTIVELY_INFINITE;
    pInfo->ulRwSessionCount = static_cast<CK_ULONG>(module.state().sessions.count(token, true));
    pInfo->ulMaxPinLen = maximumPinLength;
    pInfo->ulMinPinLen = minimumPinLength;
    pInfo->ulTotalPublicMemory = pInfo->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
    pInfo->ulTotalPrivateMemory = pInfo->ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
    pInfo->hardwareVersion = {1, 0};
    pInfo->firmwareVersion = token.firmware;
    putText(pInfo->utcTime, "");
    return CKR_OK;
  });
}

CK_RV C_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList, CK_ULONG_PTR pulCount) {
  return tokenCall("C_GetMechanismList", slotID, [&](const Call& call, ModuleLock&, const Token& token) -> CK_RV {
    if (!pulCount) return call.refuse(CKR_ARGUMENTS_BAD, "pulCount is NULL");
    std::vector<CK_MECHANISM_TYPE> types;
    for (const Mechanism& mechanism : allMechanisms())
      if (isOnToken(mechanism, token)) types.push_back(mechanism.type);
    return deliverList(call, types, pMechanismList, *pulCount);
  });
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo) {
  return tokenCall("C_GetMechanismInfo", slotID, [&](const Call& call, ModuleLock&, const Token& token) -> CK_RV {
    if (!pInfo) return call.refuse(CKR_ARGUMENTS_BAD, "pInfo is NULL");
    const Mechanism& mechanism = requiredMechanism(type, 0, token);
    pInfo->ulMinKeySize = mechanism.keySizes.smallest;
    pInfo->ulMaxKeySize = mechanism.keySizes.largest;
    pInfo->flags = mechanism.flags;
    return CKR_OK;
  });
}

// CKR_NO_EVENT writes no error line, because applications poll this function often.
CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved) {
  return libraryCall("C_WaitForSlotEvent", [&](const Call& call, State& state) -> CK_RV {
    if (!pSlot) return call.refuse(CKR_ARGUMENTS_BAD, "pSlot is NULL");
    if (pReserved) return call.refuse(CKR_ARGUMENTS_BAD, "pReserved is not NULL");
    for (;;) {
      {
        ModuleLock module(state);
        if (state.ending) return call.refuse(CKR_CRYPTOKI_NOT_INITIALIZED, "the library is being finalised");
        state.tokens.refresh(module);
        if (const auto slot = state.tokens.takeEvent()) {
          *pSlot = *slot;
          return CKR_OK;
        }
      }
      if ((flags & CKF_DONT_BLOCK) != 0) return CKR_NO_EVENT;
      if (!waitInModule(state)) return call.refuse(CKR_CRYPTOKI_NOT_INITIALIZED, "the library was finalised");
    }
  });
}
