// The slots of the connected devices, the information on them and their tokens, and the session table.
#include <algorithm>
#include <cstring>

#include "module_test.h"

namespace {

using SlotsTest = ModuleTest;
const std::string listed = "> getConnectedDeviceList flag=0 inst";

TEST_F(SlotsTest, ListNeedsRoomAndTheSizeQueryFillsNoTable) {
  CK_SLOT_ID slots[2] = {7, 7};
  CK_ULONG count = 1;
  fake::edit()->devices.push_back(fake::device("TK2"));
  bad(CALL(C_GetSlotList, CK_TRUE, slots, nullptr), ": pulCount is NULL");
  expect(CALL(C_GetSlotList, CK_TRUE, slots, &count), CKR_BUFFER_TOO_SMALL,
         {listed, ": buffer too small, *pulCount=1 slotCount=2"});
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(slots[0], 7u);
  does(CALL(C_GetSlotList, CK_FALSE, nullptr, &count), {listed});
  EXPECT_EQ(count, 2u);
  CK_SLOT_INFO info;
  EXPECT_EQ(C_GetSlotInfo(slot1 + 1, &info), CKR_SLOT_ID_INVALID);
}

// Two devices of the same name have two IDs but one slot. A device without a serial number has none.
TEST_F(SlotsTest, IdsFollowTheListingButNameSlotsInNameOrder) {
  fake::edit()->devices = {fake::device("TK2"), fake::device(""), fake::device("TK10"), fake::device("TK1"),
                           fake::device("TK1")};
  std::vector<CK_SLOT_ID> slots(5, 7);
  CK_ULONG count = 5;
  does(CALL(C_GetSlotList, CK_FALSE, slots.data(), &count),
       {listed, "> getTokenInfo TK2 inst", "> getTokenInfo none inst", "> getTokenInfo TK10 inst",
        "> getTokenInfo TK1 inst", "> getTokenInfo TK1 inst"});
  EXPECT_EQ(count, 4u);
  EXPECT_EQ(slots, (std::vector<CK_SLOT_ID>{slot1, slot1 + 1, slot1 + 2, slot1 + 3, 7}));
  CK_SLOT_INFO info;
  EXPECT_EQ(C_GetSlotInfo(slot1 + 3, &info), CKR_SLOT_ID_INVALID);
  const char* const labels[] = {"Label of TK1", "Label of TK10", "Label of TK2"};
  for (CK_SLOT_ID i = 0; i < 3; ++i) {
    ok(C_GetSlotInfo(slot1 + i, &info));
    EXPECT_STREQ(reinterpret_cast<const char*>(info.slotDescription), labels[i]);
  }
}

TEST_F(SlotsTest, Refusals) {
  for (const CK_SLOT_ID slot : {0u, 0x50000000u, 0x50000002u, 0xD0000001u, 0xFFFFFFFFu}) {
    for (const Call& call : {CALL(C_GetSlotInfo, slot, nullptr), CALL(C_GetTokenInfo, slot, nullptr),
                             CALL(C_OpenSession, slot, 0, nullptr, nullptr, nullptr), CALL(C_CloseAllSessions, slot)})
      expect(call, CKR_SLOT_ID_INVALID, {": invalid slotID=" + std::to_string(slot)});
  }
  bad(CALL(C_GetSlotInfo, slot1, nullptr), ": pInfo is NULL");
  bad(CALL(C_GetTokenInfo, slot1, nullptr), ": pInfo is NULL");
  for (const CK_FLAGS flags : {CK_FLAGS{CKF_RW_SESSION}, CK_FLAGS{0xFFFFFFFB}}) {
    expect(CALL(C_OpenSession, slot1, flags, nullptr, nullptr, nullptr), CKR_SESSION_PARALLEL_NOT_SUPPORTED,
           {": CKF_SERIAL_SESSION not set, flags=" + std::to_string(flags)});
  }
  bad(CALL(C_OpenSession, slot1, readWrite, nullptr, nullptr, nullptr), ": phSession is NULL");
  const CK_SESSION_HANDLE session = open();
  bad(CALL(C_GetSessionInfo, session, nullptr), ": pInfo is NULL");
}

TEST_F(SlotsTest, InfoIsZeroFilledAndCutToItsFields) {
  // The lengths of the label and of its part in CK_TOKEN_INFO, the model, the serial number, the tries left, the flags,
  // and the firmware as a text and as a version.
  using Row = std::tuple<std::size_t, std::size_t, std::string, std::string, int, CK_FLAGS, const char*, CK_VERSION>;
  const Row rows[] = {{5, 5, "Model", "TK1", 10, 0x40D, "2.1.7", {2, 1}},
                      {0, 0, "", "0123456789ABCDEF", 3, 0x40D, "3", {3, 0}},
                      {30, 30, "0123456789ABCDEF", "0123456789ABCDEFGH", 2, 0x1040D, "", {0, 0}},
                      {31, 30, "0123456789ABCDEFGH", "TK1", 1, 0x1040D, "300.257.1", {44, 1}},
                      {32, 30, "M", "TK1", 0, 0x4040D, "v2. 5x", {0, 5}},
                      {33, 32, "M", "TK1", -1, 0x40D, "2.1.7", {2, 1}},
                      {63, 32, "M", "TK1", 0x7FFFFFFF, 0x40D, "2.1.7", {2, 1}},
                      {64, 32, "M", "TK1", 10, 0x40D, "2.1.7", {2, 1}},
                      {200, 32, "M", "TK1", 10, 0x40D, "2.1.7", {2, 1}}};
  for (const auto& [label, shownLabel, model, serial, tries, flags, firmware, version] : rows) {
    fake::Device device = fake::device(serial);
    device.info.label = std::string(label, 'x');
    device.info.model = model;
    device.info.remainingRetries = tries;
    fake::edit()->devices = {device};
    setFirmware(firmware);
    CK_SLOT_INFO slot{}, readSlot;
    std::memset(slot.slotDescription, 'x', std::min<std::size_t>(label, 64));
    std::memcpy(slot.manufacturerID, "Quorvane Telemantix", 19);
    slot.flags = 7;
    slot.hardwareVersion = {1, 0};
    slot.firmwareVersion = version;
    CK_TOKEN_INFO token{}, readToken;
    std::memset(token.label, 'x', shownLabel);
    std::memcpy(token.manufacturerID, "Quorvane Telemantix", 19);
    model.copy(reinterpret_cast<char*>(token.model), 16);
    serial.copy(reinterpret_cast<char*>(token.serialNumber), 16);
    token.flags = flags;
    token.ulMaxPinLen = 63;
    token.ulMinPinLen = 4;
    std::memset(&token.ulTotalPublicMemory, 0xFF, 4 * sizeof(CK_ULONG));
    token.hardwareVersion = {1, 0};
    token.firmwareVersion = version;
    std::memset(token.utcTime, ' ', 16);
    std::memset(&readSlot, 0xFF, sizeof readSlot);
    std::memset(&readToken, 0xFF, sizeof readToken);
    does(CALL(C_GetSlotInfo, slot1, &readSlot));
    does(CALL(C_GetTokenInfo, slot1, &readToken), {"- C_GetTokenInfo -- exit"});
    EXPECT_EQ(hexOf(readSlot), hexOf(slot)) << label;
    EXPECT_EQ(hexOf(readToken), hexOf(token)) << label;
  }
}

TEST_F(SlotsTest, SessionCountsAreThoseOfPublicSessionsOfAllSlots) {
  addToken();
  const CK_SESSION_HANDLE session = open(readOnly);
  open(readWrite);
  open(readWrite, slot1 + 1);
  auto expectCounts = [&](CK_SLOT_ID slot, CK_ULONG all, CK_ULONG readWriteOnes) {
    CK_TOKEN_INFO info;
    ok(C_GetTokenInfo(slot, &info));
    EXPECT_EQ(std::pair(+info.ulSessionCount, +info.ulRwSessionCount), std::pair(all, readWriteOnes));
  };
  expectCounts(slot1, 1, 2);
  ok(login(session));
  expectCounts(slot1 + 1, 0, 1);
}

TEST_F(SlotsTest, SessionHandlesAndLines) {
  addToken();
  CK_SESSION_HANDLE session = 0;
  CK_SESSION_INFO info{9, 9, 9, 9};
  does(CALL(C_OpenSession, slot1 + 1, readWrite | 0x100, &session, nullptr, &session), {"- Opensession  : 1610612737"});
  does(CALL(C_GetSessionInfo, session, &info));
  EXPECT_EQ(hexOf(info), hexOf(CK_SESSION_INFO{slot1 + 1, CKS_RW_PUBLIC_SESSION, readWrite, 0}));
  EXPECT_EQ(open(readOnly), 0x60000002u);
  does(CALL(C_CloseSession, session));
  does(CALL(C_CloseAllSessions, slot1), {"- Close all session"});
  EXPECT_EQ(C_CloseSession(0x60000002), CKR_SESSION_HANDLE_INVALID);
}

}  // namespace
