// C_GetSlotList, C_GetSlotInfo and C_GetTokenInfo.
#include <algorithm>
#include <span>
#include <string_view>

#include "devlib/device_constants.h"
#include "devlib/device_library.h"
#include "frame/call_frames.h"
#include "slots/firmware_version.h"
#include "slots/slot_table.h"
#include "slots/token_sessions.h"

namespace tavrin {
namespace {

// Copies as much of the text as the field holds; the rest of the field stays as it is.
void copyText(std::span<CK_UTF8CHAR> field, std::string_view text) {
  std::copy_n(text.begin(), std::min(text.size(), field.size()), field.begin());
}

// The part of a text that a C string shows.
std::string_view untilNul(const std::string& text) { return text.c_str(); }

std::string_view tokenLabel(const std::string& label) {
  return untilNul(label).substr(0, shownLabelLength(label.size()));
}

CK_FLAGS tokenFlags(std::int32_t remainingRetries) {
  const CK_FLAGS flags = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
  if (remainingRetries == 0) return flags | CKF_USER_PIN_LOCKED;
  if (remainingRetries == 1 || remainingRetries == 2) return flags | CKF_USER_PIN_COUNT_LOW;
  return flags;
}

}  // namespace
}  // namespace tavrin

using namespace tavrin;

CK_RV C_GetSlotList(CK_BBOOL, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount) {
  return initializedCall("C_GetSlotList", [&](const Call& call) -> CK_RV {
    if (!pulCount) return call.refuse(CKR_ARGUMENTS_BAD, "pulCount is NULL");

    const auto devices = tavrin_getConnectedDeviceList(false, libraryInstance);
    if (devices.empty()) {
      slotTable.clear();
      logError("No valid token found");
    }
    if (!pSlotList) {
      *pulCount = static_cast<CK_ULONG>(devices.size());
      return CKR_OK;
    }
    // The count is not changed: applications learn the size from a query.
    if (devices.size() > *pulCount) {
      return call.refuse(CKR_BUFFER_TOO_SMALL, "buffer too small, *pulCount=", *pulCount,
                         " slotCount=", devices.size());
    }

    // IDs follow the library's order, but the table is in name order. The two agree for a library that lists its
    // devices by name.
    SlotTable::Entries entries;
    CK_ULONG accepted = 0;
    for (const std::string& name : devices) {
      TokenInfo token = tavrin_getTokenInfo(name.c_str(), libraryInstance);
      if (token.serialNumber.empty()) continue;
      pSlotList[accepted] = firstSlotId + accepted;
      ++accepted;
      entries.emplace(name, std::make_shared<const TokenInfo>(std::move(token)));
    }
    slotTable.replace(std::move(entries));
    *pulCount = accepted;
    return CKR_OK;
  });
}

CK_RV C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo) {
  return slotCall("C_GetSlotInfo", slotID, [&](const Call& call, const TokenInfo& token) -> CK_RV {
    if (!pInfo) return call.refuse(CKR_ARGUMENTS_BAD, "pInfo is NULL");

    CK_SLOT_INFO info{};
    copyText(info.slotDescription, untilNul(token.label));
    copyText(info.manufacturerID, makerName);
    info.flags = CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE | CKF_HW_SLOT;
    info.hardwareVersion = {1, 0};
    info.firmwareVersion = majorAndMinor(token.firmwareVersion);
    *pInfo = info;
    return CKR_OK;
  });
}

CK_RV C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo) {
  return slotCall("C_GetTokenInfo", slotID, [&](const Call& call, const TokenInfo& token) -> CK_RV {
    if (!pInfo) return call.refuse(CKR_ARGUMENTS_BAD, "pInfo is NULL");

    const PublicSessionCounts sessions = countPublicSessions();
    CK_TOKEN_INFO info{};
    copyText(info.label, tokenLabel(token.label));
    copyText(info.manufacturerID, makerName);
    copyText(info.model, untilNul(token.model));
    copyText(info.serialNumber, token.serialNumber);
    info.flags = tokenFlags(token.remainingRetries);
    info.ulMaxSessionCount = CK_EFFECTIVELY_INFINITE;
    info.ulSessionCount = sessions.readOnly;
    info.ulMaxRwSessionCount = CK_EFFECTIVELY_INFINITE;
    info.ulRwSessionCount = sessions.readWrite;
    info.ulMaxPinLen = maximumPinLength;
    info.ulMinPinLen = minimumPinLength;
    info.ulTotalPublicMemory = CK_UNAVAILABLE_INFORMATION;
    info.ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
    info.ulTotalPrivateMemory = CK_UNAVAILABLE_INFORMATION;
    info.ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
    info.hardwareVersion = {1, 0};
    info.firmwareVersion = majorAndMinor(token.firmwareVersion);
    std::fill(std::begin(info.utcTime), std::end(info.utcTime), CK_CHAR{' '});
    *pInfo = info;
    logDebug("C_GetTokenInfo -- exit");
    return CKR_OK;
  });
}
