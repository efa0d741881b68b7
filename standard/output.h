// How results reach the caller and how operations end.
//
// The length is always written. Without a buffer the call is a query; a buffer that is too small is refused. Both leave
// the operation as it is, and neither computes anything. Everything else ends the operation.
#pragma once

#include <algorithm>
#include <memory>

#include "standard/call.h"

namespace tavrin::standard {

// Ends a session's operation when the call is over, unless the call says that it goes on.
template <typename Operation>
class OperationEnd {
 public:
  explicit OperationEnd(std::unique_ptr<Operation>& operation) : operation_(operation) {}
  ~OperationEnd() {
    if (!goesOn_) operation_.reset();
  }
  OperationEnd(const OperationEnd&) = delete;
  OperationEnd& operator=(const OperationEnd&) = delete;

  CK_RV goOn(CK_RV code = CKR_OK) {
    goesOn_ = true;
    code_ = code;
    return code;
  }
  // What the call answers when it goes on.
  CK_RV code() const { return code_; }

 private:
  std::unique_ptr<Operation>& operation_;
  bool goesOn_ = false;
  CK_RV code_ = CKR_OK;
};

// That the caller's buffer can take so many bytes. Otherwise the operation goes on with the answer end.code().
template <typename Operation>
bool hasRoom(const Call& call, OperationEnd<Operation>& end, std::size_t needed, const CK_BYTE* out, CK_ULONG& length) {
  const CK_ULONG room = length;
  if (out && room >= needed) return true;
  length = static_cast<CK_ULONG>(needed);
  if (!out) {
    end.goOn();
  } else {
    end.goOn(call.refuse(CKR_BUFFER_TOO_SMALL, "buffer too small, provided=", room, " required=", needed));
  }
  return false;
}

inline CK_RV deliver(ByteView result, CK_BYTE* out, CK_ULONG& length) {
  std::ranges::copy(result, out);
  length = static_cast<CK_ULONG>(result.size());
  return CKR_OK;
}

inline CK_RV refuseNotInitialized(const Call& call) {
  return call.refuse(CKR_OPERATION_NOT_INITIALIZED, "operation not initialized");
}

inline void requireNoParameter(const CK_MECHANISM& mechanism) {
  if (!mechanism.pParameter && mechanism.ulParameterLen == 0) return;
  const CK_MECHANISM_TYPE type = mechanism.mechanism;
  throw Refusal(CKR_MECHANISM_PARAM_INVALID, "mechanism param invalid for mechanism=", type);
}

}  // namespace tavrin::standard
