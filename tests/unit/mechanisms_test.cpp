// The mechanisms that the module announces.
#include "signature_mechanisms.h"

namespace {

using MechanismsTest = ModuleTest;

const CK_SLOT_ID anySlot = 12345;

TEST_F(MechanismsTest, ListHasItsOrderAndIsTheSameForEverySlot) {
  std::vector<CK_MECHANISM_TYPE> expected;
  for (const MechanismRow& row : mechanismRows) expected.push_back(row.type);
  expected.push_back(7);
  std::vector<CK_MECHANISM_TYPE> list(23, 7);
  CK_ULONG count = 77;
  bad(CALL(C_GetMechanismList, anySlot, list.data(), nullptr), ": pulCount is NULL");
  does(CALL(C_GetMechanismList, anySlot, nullptr, &count));
  EXPECT_EQ(count, 22u);
  count = 21;
  expect(CALL(C_GetMechanismList, anySlot, list.data(), &count), CKR_BUFFER_TOO_SMALL,
         {": buffer too small, *pulCount=21 mechanismCount=22"});
  EXPECT_EQ(count, 21u);
  EXPECT_EQ(list, std::vector<CK_MECHANISM_TYPE>(23, 7));
  count = 22;
  does(CALL(C_GetMechanismList, anySlot, list.data(), &count));
  EXPECT_EQ(list, expected);
}

TEST_F(MechanismsTest, InfoTellsSizesAndFlags) {
  auto told = [](CK_MECHANISM_TYPE type) { return "- C_GetMechanismInfo -- type : " + std::to_string(type); };
  for (const MechanismRow& row : mechanismRows) {
    CK_MECHANISM_INFO info{9, 9, 9};
    does(CALL(C_GetMechanismInfo, anySlot, row.type, &info), {told(row.type), "- C_GetMechanismInfo -- exit"});
    EXPECT_EQ(hexOf(info), hexOf(CK_MECHANISM_INFO{row.smallest, row.largest, row.flags})) << row.type;
  }
  CK_MECHANISM_INFO info{9, 9, 9};
  bad(CALL(C_GetMechanismInfo, anySlot, 0x1043, nullptr), ": pInfo is NULL");
  for (const CK_MECHANISM_TYPE type : {0x255u, 0x1043u, 0x1046u, 0x46u, 0xFFFFFFFFu}) {
    expect(CALL(C_GetMechanismInfo, anySlot, type, &info), CKR_MECHANISM_INVALID,
           {told(type), ": unsupported mechanism type=" + std::to_string(type)});
  }
  EXPECT_EQ(hexOf(info), hexOf(CK_MECHANISM_INFO{9, 9, 9}));
}

}  // namespace
