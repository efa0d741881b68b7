// The slots of the connected devices, and the information on them and their tokens.
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

// Two devices of one name are two IDs but one slot, and a device without a serial number is none.
TEST_F(SlotsTest, IdsFollowTheListingButNameSlotsInNameOrder) {
  fake::edit()->devices = {fake::device("TK2"), fake::device(""), fake::device("TK10"), fake::device("TK1"),
                           fake::device("TK1")};
  fake::edit()->devices[1].listedName = "none";
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

TEST_F(SlotsTest, UnpluggedSlotStaysUntilNoDeviceIsSeenOrTheListIsFilled) {
  CK_TOKEN_INFO info;
  CK_ULONG count = 77;
  fake::edit()->devices.clear();
  does(CALL(C_GetTokenInfo, slot1, &info), {"- C_GetTokenInfo -- exit"});
  does(CALL(C_GetSlotList, CK_TRUE, nullptr, &count), {listed, "No valid token found"});
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(C_GetTokenInfo(slot1, &info), CKR_SLOT_ID_INVALID);
  CK_SLOT_ID slot = 7;
  ok(C_GetSlotList(CK_TRUE, &slot, &count));
  EXPECT_EQ(slot, 7u);
}

TEST_F(SlotsTest, InfoRefusals) {
  for (const CK_SLOT_ID slot : {0u, 0x50000000u, 0x50000002u, 0xD0000001u, 0xFFFFFFFFu}) {
    const Lines invalid{": invalid slotID=" + std::to_string(slot)};
    expect(CALL(C_GetSlotInfo, slot, nullptr), CKR_SLOT_ID_INVALID, invalid);
    expect(CALL(C_GetTokenInfo, slot, nullptr), CKR_SLOT_ID_INVALID, invalid);
  }
  bad(CALL(C_GetSlotInfo, slot1, nullptr), ": pInfo is NULL");
  bad(CALL(C_GetTokenInfo, slot1, nullptr), ": pInfo is NULL");
}

TEST_F(SlotsTest, SlotInfoIsZeroFilledAndCutToItsFields) {
  struct Row {
    std::size_t label;  // its length
    const char* firmware;
    CK_VERSION version;
  };
  for (const Row& row : {Row{5, "2.1.7", {2, 1}}, Row{0, "3", {3, 0}}, Row{63, "", {0, 0}},
                         Row{64, "300.257.1", {44, 1}}, Row{200, "v2. 5x", {0, 5}}}) {
    fake::edit()->devices[0].info.label = std::string(row.label, 'x');
    setFirmware(row.firmware);
    CK_SLOT_INFO expected{};
    std::memset(expected.slotDescription, 'x', std::min<std::size_t>(row.label, 64));
    std::memcpy(expected.manufacturerID, "Quorvane Telemantix", 19);
    expected.flags = 7;
    expected.hardwareVersion = {1, 0};
    expected.firmwareVersion = row.version;
    CK_SLOT_INFO info;
    std::memset(&info, 0xFF, sizeof info);
    does(CALL(C_GetSlotInfo, slot1, &info));
    EXPECT_EQ(hexOf(info), hexOf(expected)) << row.label;
  }
}

TEST_F(SlotsTest, TokenInfoIsZeroFilledAndCutToItsFields) {
  struct Row {
    std::size_t label;       // its length
    std::size_t shownLabel;  // its length
    const char* model;
    const char* serial;
    std::int32_t retries;
    CK_FLAGS flags;
  };
  const Row rows[] = {{5, 5, "Model", "TK1", 10, 0x40D},
                      {0, 0, "", "0123456789ABCDEF", 3, 0x40D},
                      {30, 30, "0123456789ABCDEF", "0123456789ABCDEFGH", 2, 0x1040D},
                      {31, 30, "0123456789ABCDEFGH", "TK1", 1, 0x1040D},
                      {32, 30, "M", "TK1", 0, 0x4040D},
                      {33, 32, "M", "TK1", -1, 0x40D},
                      {100, 32, "M", "TK1", 0x7FFFFFFF, 0x40D}};
  for (const Row& row : rows) {
    fake::Device device = fake::device(row.serial);
    device.info.label = std::string(row.label, 'x');
    device.info.model = row.model;
    device.info.remainingRetries = row.retries;
    fake::edit()->devices = {device};
    ok(listSlots());
    CK_TOKEN_INFO expected{};
    std::memset(expected.label, 'x', row.shownLabel);
    std::memcpy(expected.manufacturerID, "Quorvane Telemantix", 19);
    std::memcpy(expected.model, row.model, std::min<std::size_t>(std::strlen(row.model), 16));
    std::memcpy(expected.serialNumber, row.serial, std::min<std::size_t>(std::strlen(row.serial), 16));
    expected.flags = row.flags;
    expected.ulMaxPinLen = 63;
    expected.ulMinPinLen = 4;
    std::memset(&expected.ulTotalPublicMemory, 0xFF, 4 * sizeof(CK_ULONG));
    expected.hardwareVersion = {1, 0};
    expected.firmwareVersion = {2, 1};
    std::memset(expected.utcTime, ' ', 16);
    CK_TOKEN_INFO info;
    std::memset(&info, 0xFF, sizeof info);
    ok(C_GetTokenInfo(slot1, &info));
    EXPECT_EQ(hexOf(info), hexOf(expected)) << row.label;
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
    EXPECT_EQ(+info.ulSessionCount, all);
    EXPECT_EQ(+info.ulRwSessionCount, readWriteOnes);
  };
  expectCounts(slot1, 1, 2);
  ok(login(session));
  expectCounts(slot1 + 1, 0, 1);
}

}  // namespace
