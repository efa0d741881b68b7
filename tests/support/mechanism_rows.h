// All mechanisms, in numbers, so that a wrong constant shows too.
#pragma once

#include "pkcs11.h"

struct MechanismRow {
  CK_MECHANISM_TYPE type;
  CK_ULONG smallest;  // key sizes
  CK_ULONG largest;
  CK_FLAGS flags;
  int hash;          // the device library's code; 0: the data is signed as it is
  int pss;           // 1 for PSS
  int verifiedHash;  // the same for verification in several parts
};

inline constexpr MechanismRow mechanismRows[] = {
    {0x0, 1024, 4096, 0x10000, 0, 0, 0},  {0x1, 1024, 4096, 0x2B00, 0, 0, 0},   {0x9, 1024, 4096, 0x300, 0, 0, 0},
    {0xD, 1024, 4096, 0x2800, 0, 1, 3},   {0x6, 1024, 4096, 0x2800, 2, 0, 2},   {0x40, 1024, 4096, 0x2800, 3, 0, 3},
    {0x41, 1024, 4096, 0x2800, 4, 0, 4},  {0x42, 1024, 4096, 0x2800, 5, 0, 5},  {0xE, 1024, 4096, 0x2800, 2, 1, 3},
    {0x43, 1024, 4096, 0x2800, 3, 1, 3},  {0x44, 1024, 4096, 0x2800, 4, 1, 3},  {0x45, 1024, 4096, 0x2800, 5, 1, 3},
    {0x1040, 256, 521, 0x10000, 0, 0, 0}, {0x1050, 256, 521, 0x80000, 0, 0, 0}, {0x1041, 256, 521, 0x2800, 0, 0, 0},
    {0x1042, 256, 521, 0x2800, 2, 0, 2},  {0x1044, 256, 521, 0x2800, 3, 0, 3},  {0x1045, 256, 521, 0x2800, 4, 0, 4},
    {0x220, 0, 0, 0x400, 0, 0, 0},        {0x250, 0, 0, 0x400, 0, 0, 0},        {0x260, 0, 0, 0x400, 0, 0, 0},
    {0x270, 0, 0, 0x400, 0, 0, 0}};
