// The library's statuses that the module tells apart; every other one is a failure like any other.
#pragma once

#include "pkcs11.h"

inline constexpr int deviceFault = 48;

// The result of a store operation that the device refused: both statuses mean that the token is out of room.
constexpr CK_RV storeFailure(int status) {
  return status == 40 || status == 242 ? CKR_DEVICE_MEMORY : CKR_FUNCTION_FAILED;
}
