// Slots and tokens. A slot belongs to the first token that was seen in it, by its serial number, and keeps its number
// for the life of the process: over C_Finalize and in the children of a fork. There is always one slot at least.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "standard/cryptoki.h"

namespace tavrin::standard {

class ModuleLock;

enum class Login { none, user, securityOfficer };

struct Token {
  Token(std::string serialNumber, CK_SLOT_ID itsSlot) : serial(std::move(serialNumber)), slot(itsSlot) {}

  const std::string serial;  // at most 16 bytes
  const CK_SLOT_ID slot;

  // Changed under the module lock, read by any thread.
  std::atomic<bool> present = false;
  std::atomic<unsigned> insertion = 0;  // number of insertions seen; sessions of an earlier one have ended
  std::atomic<Login> login = Login::none;
  std::atomic<unsigned> logouts = 0;  // operations with private keys of an earlier count have ended
  std::atomic<bool> hasPssAndOaep = false;

  // Used under the module lock.
  std::string label;
  std::string model;
  CK_FLAGS flags = 0;
  bool lastTry = false;    // of the PIN, as far as this process has seen wrong ones
  CK_FLAGS wrongPins = 0;  // CKF_USER_PIN_COUNT_LOW and CKF_SO_PIN_COUNT_LOW, as far as it has seen wrong ones
  CK_VERSION firmware{};
  CK_SLOT_ID moduleSlot = 0;  // of the module's last listing
  // Sessions of the module that are used under the lock, the second one for keys; 0 when not open.
  CK_SESSION_HANDLE moduleSession = 0;
  CK_SESSION_HANDLE keyUseSession = 0;

  // Further sessions of the module, for what works without the lock.
  std::mutex idleMutex;
  std::vector<CK_SESSION_HANDLE> idleSessions;
};

// The numbers of the slots. One for the process; any thread.
class SlotNumbers {
 public:
  // The slot of the token with this serial number; a new token takes the next.
  CK_SLOT_ID slotOf(const std::string& serial);
  CK_SLOT_ID count() const;  // at least 1: the slot for the first token is always there
  void clear();              // frees the memory; slots are counted from 1 again
  std::mutex& mutex() { return mutex_; }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> serials_;
};

extern SlotNumbers& slotNumbers;

// The tokens that were seen since C_Initialize. All functions need the module lock, except `inSlot`.
class TokenTable {
 public:
  // Lists the tokens through the module: finds which were inserted or removed, and reads their texts and flags. Throws
  // CKR_HOST_MEMORY or CKR_GENERAL_ERROR, and changes nothing, when the module cannot list them.
  void refresh(ModuleLock& module);

  // The token whose slot this is, present or not; null when there was none. A token stays until C_Finalize.
  Token* inSlot(CK_SLOT_ID slot);

  // To be called after a wrong PIN: finds out whether the next try is the last.
  void countWrongPin(ModuleLock& module, Token& token);

  // Takes the event of a slot whose token was inserted or removed. The lowest slot comes first.
  std::optional<CK_SLOT_ID> takeEvent();
  void clearEvents() { events_.clear(); }

  // The slots as C_GetSlotList last counted them, all and those with a token; nothing once that list was fetched.
  std::optional<std::vector<CK_SLOT_ID>> counted[2];

 private:
  Token& tokenOf(const std::string& serial);

  mutable std::mutex mutex_;  // guards the map itself
  std::map<CK_SLOT_ID, std::unique_ptr<Token>> tokens_;
  std::set<CK_SLOT_ID> events_;
};

}  // namespace tavrin::standard
