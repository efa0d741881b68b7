// The secrets that C_DeriveKey made. They stay in memory after C_Finalize, until the module is unloaded, and are wiped
// then.
#pragma once

#include <map>
#include <mutex>
#include <optional>

#include "objects/object_handles.h"
#include "platform/secret_memory.h"

namespace tavrin {

// Safe from any thread.
class DerivedSecretTable {
 public:
  // Stores the secret under the next handle; no handle is used twice.
  CK_OBJECT_HANDLE insert(SecretBytes secret);

  // A copy of the secret; nothing for an unknown handle.
  std::optional<SecretBytes> find(CK_OBJECT_HANDLE handle) const;

  void clear();
  // The same, but does nothing if the lock is taken: by a running thread, or by one that the system ended.
  void clearUnlessBusy();

  std::mutex& mutex() { return mutex_; }

 private:
  mutable std::mutex mutex_;
  std::map<CK_OBJECT_HANDLE, SecretBytes> secrets_;
  CK_OBJECT_HANDLE nextDerivedHandle_ = derivedSecretBase;
};

extern DerivedSecretTable& derivedSecretTable;

}  // namespace tavrin
