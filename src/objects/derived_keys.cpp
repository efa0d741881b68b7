#include "objects/derived_keys.h"

namespace tavrin {

CK_OBJECT_HANDLE DerivedKeyTable::insert(SecretBytes secret) {
  const std::lock_guard lock(mutex_);
  secrets_.emplace(nextDerivedHandle_, std::move(secret));
  return nextDerivedHandle_++;
}

std::optional<SecretBytes> DerivedKeyTable::find(CK_OBJECT_HANDLE handle) const {
  const std::lock_guard lock(mutex_);
  const auto found = secrets_.find(handle);
  if (found == secrets_.end()) return std::nullopt;
  return found->second;
}

void DerivedKeyTable::clear() {
  const std::lock_guard lock(mutex_);
  secrets_.clear();
}

void DerivedKeyTable::clearUnlessBusy() {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (lock.owns_lock()) secrets_.clear();
}

}  // namespace tavrin
