#include "softtoken/library_state.h"

namespace softtoken {
namespace {

LibraryState* makeState() {
  auto made = std::make_unique<LibraryState>();
  // A child does not use what its parent has unlocked.
  keepLoaded([] { LibraryState::get().clear(); });
  return made.release();
}

}  // namespace

LibraryState& LibraryState::get() {
  static LibraryState* const state = makeState();
  return *state;
}

void* LibraryState::openInstance() {
  auto instance = std::make_unique<char>();
  void* const handle = instance.get();
  const std::lock_guard guard(mutex_);
  instances_.push_back(std::move(instance));
  return handle;
}

void LibraryState::closeInstance(void* instance) {
  const std::lock_guard guard(mutex_);
  if (std::erase_if(instances_, [&](const auto& open) { return open.get() == instance; }) == 0) return;
  tokens.forgetPasswords();
  if (instances_.empty()) clear();
}

void LibraryState::clear() {
  tokens.forgetPasswords();
  hashes.clear();
  listedKeyPairs.clear();
  listedCertificates.clear();
  plaintexts.clear();
  secrets.clear();
}

}  // namespace softtoken
