// A refusal from deep inside a call. The call's frame writes its error line and returns its code.
#pragma once

#include <string>

#include "log/log.h"
#include "standard/cryptoki.h"

namespace tavrin::standard {

class Refusal {
 public:
  // The reason is made of texts and numbers, as the lines of the log are.
  template <typename... Parts>
  explicit Refusal(CK_RV code, const Parts&... reason) : code_(code) {
    (log_detail::append(reason_, reason), ...);
  }

  CK_RV code() const { return code_; }
  const std::string& reason() const { return reason_; }

 private:
  CK_RV code_;
  std::string reason_;
};

}  // namespace tavrin::standard
