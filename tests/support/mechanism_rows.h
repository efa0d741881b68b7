// All mechanisms, in numbers, so that a wrong constant shows too.
#pragma once

#include "pkcs11.h"

struct MechanismRow {
  CK_MECHANISM_TYPE type;
  CK_ULONG smallest;  // key sizes
  CK_ULONG largest;
  CK_FLAGS flags;
  int hash = 0;  // the device library's code; 0: the data is signed as it is
  bool pss = false;
  int verifiedHash = 0;  // the same for verification in several parts
};

inline constexpr MechanismRow mechanismRows[] = {{0x0, 1024, 4096, 0x10000},
                                                 {0x1, 1024, 4096, 0x2B00},
                                                 {0x9, 1024, 4096, 0x300},
                                                 {0xD, 1024, 4096, 0x2800, 0, true, 3},
                                                 {0x6, 1024, 4096, 0x2800, 2, false, 2},
                                                 {0x40, 1024, 4096, 0x2800, 3, false, 3},
                                                 {0x41, 1024, 4096, 0x2800, 4, false, 4},
                                                 {0x42, 1024, 4096, 0x2800, 5, false, 5},
                                                 {0xE, 1024, 4096, 0x2800, 2, true, 3},
                                                 {0x43, 1024, 4096, 0x2800, 3, true, 3},
                                                 {0x44, 1024, 4096, 0x2800, 4, true, 3},
                                                 {0x45, 1024, 4096, 0x2800, 5, true, 3},
                                                 {0x1040, 256, 521, 0x10000},
                                                 {0x1050, 256, 521, 0x80000},
                                                 {0x1041, 256, 521, 0x2800},
                                                 {0x1042, 256, 521, 0x2800, 2, false, 2},
                                                 {0x1044, 256, 521, 0x2800, 3, false, 3},
                                                 {0x1045, 256, 521, 0x2800, 4, false, 4},
                                                 {0x220, 0, 0, 0x400},
                                                 {0x250, 0, 0, 0x400},
                                                 {0x260, 0, 0, 0x400},
                                                 {0x270, 0, 0, 0x400}};
