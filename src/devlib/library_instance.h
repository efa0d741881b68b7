// The instance of the device library, and the frame of the calls that need it.
#pragma once

#include <atomic>

#include "log/call.h"

namespace tavrin {

// Made by C_Initialize, released by C_Finalize; non-null means initialised.
extern std::atomic<void*>& libraryInstance;

// An exported call that is refused while the module is not initialised.
template <typename Body>
CK_RV initializedCall(const char* name, Body&& body) noexcept {
  return exportedCall(name, [&](const Call& call) -> CK_RV {
    if (libraryInstance == nullptr) return call.refuse(CKR_CRYPTOKI_NOT_INITIALIZED, "not initialized");
    return body(call);
  });
}

}  // namespace tavrin
