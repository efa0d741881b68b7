// One call of an exported function, and exportedCall, the outermost frame of every exported function. The standard
// module uses both too.
#pragma once

#include <exception>
#include <new>

#include "log/log.h"
#include "pkcs11.h"
#include "platform/platform.h"

namespace tavrin {

// Whether calls write their debug line. The module reads the level at every call, the standard module less often.
bool wantsCallLines() noexcept;

// One call of an exported function.
class Call {
 public:
  // Writes the debug line with the function's name, if it is wanted.
  explicit Call(const char* name) noexcept : name_(name) {
    if (wantsCallLines()) log_detail::compose(debugLevel, name);
  }

  const char* name() const { return name_; }

  // Writes the error line made of the name, ": " and the reason's parts, and returns the code.
  template <typename... Parts>
  CK_RV refuse(CK_RV code, const Parts&... reason) const noexcept {
    logError(name_, ": ", reason...);
    return code;
  }

  // The same with a line that does not begin with the function's name.
  template <typename... Parts>
  CK_RV refuseBare(CK_RV code, const Parts&... line) const noexcept {
    logError(line...);
    return code;
  }

 private:
  const char* name_;
};

// Runs `body(call)` as the exported function `name`. An exception ends the call with CKR_HOST_MEMORY when memory ran
// out and with CKR_GENERAL_ERROR otherwise. A thread that is cancelled during the call ends after it.
template <typename Body>
CK_RV exportedCall(const char* name, Body&& body) noexcept {
  const platform::CancellationDeferral deferral;
  const Call call(name);
  try {
    return body(call);
  } catch (const std::bad_alloc&) {
    return call.refuse(CKR_HOST_MEMORY, "out of memory");
  } catch (const std::exception& exception) {
    return call.refuse(CKR_GENERAL_ERROR, "unexpected failure: ", exception.what());
  } catch (...) {
    return call.refuse(CKR_GENERAL_ERROR, "unexpected failure");
  }
}

}  // namespace tavrin
