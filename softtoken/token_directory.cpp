#include "softtoken/token_directory.h"

#include "softtoken/token_folders.h"

namespace softtoken {

namespace fs = std::filesystem;

std::vector<std::string> TokenDirectory::serials() {
  const std::lock_guard guard(mutex_);
  refreshInLock();
  std::vector<std::string> serials;
  for (const auto& [serial, token] : bySerial_) serials.push_back(serial);
  return serials;
}

FoundToken TokenDirectory::find(std::string_view serial) {
  for (const bool refreshed : {false, true}) {
    if (refreshed) serials();
    const std::shared_ptr<Token> token = known(serial);
    if (!token) continue;
    try {
      return {token, token->state()};
    } catch (const Failure&) {
      continue;
    }
  }
  throw Failure(Status::deviceFault, "no such device is connected");
}

std::shared_ptr<Token> TokenDirectory::known(std::string_view serial) {
  const std::lock_guard guard(mutex_);
  const auto found = bySerial_.find(serial);
  return found == bySerial_.end() ? nullptr : found->second;
}

void TokenDirectory::forgetPasswords() {
  const std::lock_guard guard(mutex_);
  for (const auto& [folder, token] : byFolder_) token->forgetPassword();
}

// The serial number of a complete token; empty for a folder that holds none.
static std::string serialOf(Token& token) {
  try {
    token.tries();
    return token.state()->serial;
  } catch (const Failure&) {
    return {};
  }
}

// The tables are exchanged last, so that a failure leaves them as they are.
void TokenDirectory::refreshInLock() {
  std::map<fs::path, std::shared_ptr<Token>> byFolder;
  std::map<std::string, std::shared_ptr<Token>, std::less<>> bySerial;
  for (const fs::path& folder : tokenFolders(tokenRoot())) {
    const auto kept = byFolder_.find(folder);
    auto token = kept != byFolder_.end() ? kept->second : std::make_shared<Token>(folder);
    std::string serial = serialOf(*token);
    if (kept != byFolder_.end() && serial.empty()) {
      // Another token may be in the folder now.
      token->forgetPassword();
      token = std::make_shared<Token>(folder);
      serial = serialOf(*token);
    }
    byFolder.emplace(folder, token);
    if (!serial.empty()) bySerial.emplace(serial, token);
  }
  byFolder_.swap(byFolder);
  bySerial_.swap(bySerial);
  for (const auto& [folder, token] : byFolder)
    if (!byFolder_.contains(folder)) token->forgetPassword();
}

}  // namespace softtoken
