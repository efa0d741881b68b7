#pragma once

#include "devlib/device_constants.h"
#include "pkcs11.h"

namespace tavrin {

// The result of a store operation that the device refused with `status`.
constexpr CK_RV storeFailure(int status) {
  return status == statusTokenFull || status == statusTokenFullLegacy ? CKR_DEVICE_MEMORY : CKR_FUNCTION_FAILED;
}

}  // namespace tavrin
