// How results reach the caller and how operations end.
//
// The length is always written. Without a buffer the call is a query; a buffer that is too small is refused. Both leave
// the operation as it is and compute nothing but the length of a plaintext. Everything else ends the operation.
#pragma once

#include <algorithm>
#include <memory>

#include "standard/call_frames.h"

namespace tavrin::standard {

// Ends a session's operation when the call is over, unless the call continues it.
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
    return code;
  }

  // Copies the result that `make()` returns, of `needed` bytes, to the caller's buffer.
  template <typename Make>
  CK_RV deliver(const Call& call, std::size_t needed, CK_BYTE* out, CK_ULONG& length, Make&& make) {
    const CK_ULONG room = length;
    if (out && room >= needed) {
      std::ranges::copy(make(), out);
      length = static_cast<CK_ULONG>(needed);
      return CKR_OK;
    }
    length = static_cast<CK_ULONG>(needed);
    if (!out) return goOn();
    return goOn(call.refuse(CKR_BUFFER_TOO_SMALL, "buffer too small, provided=", room, " required=", needed));
  }

 private:
  std::unique_ptr<Operation>& operation_;
  bool goesOn_ = false;
};

inline CK_ULONG& requiredLength(CK_ULONG* length) {
  if (!length) throw Refusal(CKR_ARGUMENTS_BAD, "the pointer to the result's length is NULL");
  return *length;
}

}  // namespace tavrin::standard
