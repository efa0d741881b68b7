#include "objects/derived_secrets.h"

namespace tavrin {

CK_OBJECT_HANDLE DerivedSecretTable::insert(SecretBytes secret) {
  const std::lock_guard lock(mutex_);
  secrets_.emplace(nextDerivedHandle_, std::move(secret));
  return nextDerivedHandle_++;
}

std::optional<SecretBytes> DerivedSecretTable::find(CK_OBJECT_HANDLE handle) const {
  const std::lock_guard lock(mutex_);
  const auto found = secrets_.find(handle);
  if (found == secrets_.end()) return std::nullopt;
  return found->second;
}

void DerivedSecretTable::clear() {
  const std::lock_guard lock(mutex_);
  secrets_.clear();
}

void DerivedSecretTable::clearUnlessBusy() {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (lock.owns_lock()) secrets_.clear();
}

}  // namespace tavrin
