#include "standard/tokens.h"

#include <algorithm>

#include "standard/module_calls.h"
#include "standard/refusal.h"

namespace tavrin::standard {
namespace {

// The text of a field that the module ends with a NUL.
template <std::size_t size>
std::string textIn(const CK_UTF8CHAR (&field)[size]) {
  return {field, std::find(field, field + size, '\0')};
}

// More tokens than are usually connected: fetching the number first would list the devices twice.
constexpr CK_ULONG usualTokens = 64;

std::vector<CK_SLOT_ID> listModuleSlots(ModuleLock& module) {
  CK_ULONG count = usualTokens;
  std::vector<CK_SLOT_ID> slots(count);
  CK_RV code = module->C_GetSlotList(CK_TRUE, slots.data(), &count);
  while (code == CKR_BUFFER_TOO_SMALL) {
    code = module->C_GetSlotList(CK_TRUE, nullptr, &count);
    slots.resize(count);
    if (code == CKR_OK) code = module->C_GetSlotList(CK_TRUE, slots.data(), &count);
  }
  // Taking a failure for an empty list would end all sessions and logins.
  if (code != CKR_OK) {
    throw Refusal(code == CKR_HOST_MEMORY ? code : CKR_GENERAL_ERROR, "C_GetSlotList of the module failed: ", code);
  }
  slots.resize(count);
  return slots;
}

}  // namespace

CK_SLOT_ID SlotNumbers::slotOf(const std::string& serial) {
  const std::lock_guard guard(mutex_);
  auto place = std::ranges::find(serials_, serial);
  if (place == serials_.end()) place = serials_.insert(place, serial);
  return static_cast<CK_SLOT_ID>(place - serials_.begin()) + 1;
}

CK_SLOT_ID SlotNumbers::count() const {
  const std::lock_guard guard(mutex_);
  return static_cast<CK_SLOT_ID>(std::max<std::size_t>(serials_.size(), 1));
}

void SlotNumbers::clear() {
  const std::lock_guard guard(mutex_);
  std::vector<std::string>().swap(serials_);
}

Token* TokenTable::inSlot(CK_SLOT_ID slot) {
  const std::lock_guard guard(mutex_);
  const auto place = tokens_.find(slot);
  return place == tokens_.end() ? nullptr : place->second.get();
}

Token& TokenTable::tokenOf(const std::string& serial) {
  const CK_SLOT_ID slot = slotNumbers.slotOf(serial);
  const std::lock_guard guard(mutex_);
  std::unique_ptr<Token>& token = tokens_[slot];
  if (!token) token = std::make_unique<Token>(serial, slot);
  return *token;
}

void TokenTable::refresh(ModuleLock& module) {
  std::set<const Token*> seen;
  for (const CK_SLOT_ID moduleSlot : listModuleSlots(module)) {
    CK_TOKEN_INFO info{};
    CK_SLOT_INFO slotInfo{};
    if (module->C_GetTokenInfo(moduleSlot, &info) != CKR_OK || module->C_GetSlotInfo(moduleSlot, &slotInfo) != CKR_OK)
      continue;
    const std::string serial = textIn(info.serialNumber);
    if (serial.empty()) continue;
    Token& token = tokenOf(serial);
    if (!seen.insert(&token).second) continue;  // the module cuts serial numbers, and this one is equal to another then
    token.moduleSlot = moduleSlot;
    token.label = textIn(slotInfo.slotDescription);  // the module shortens the label of the token's own record
    token.model = textIn(info.model);
    token.lastTry = token.lastTry && (info.flags & CKF_USER_PIN_COUNT_LOW) != 0;
    token.flags = info.flags | (token.lastTry ? CKF_USER_PIN_FINAL_TRY : 0U);
    token.firmware = info.firmwareVersion;
    token.hasPssAndOaep = info.firmwareVersion.major >= 2;
    if (token.present) continue;
    ++token.insertion;
    token.present = true;
    events_.insert(token.slot);
  }
  for (const auto& [slot, token] : tokens_) {
    if (!token->present || seen.contains(token.get())) continue;
    token->present = false;
    events_.insert(slot);
    forgetToken(module, *token);  // does not wait, or the list of tokens could change here
  }
}

// The module reports a low count for two tries and for one. Low before a wrong PIN and after it means one.
void TokenTable::countWrongPin(ModuleLock& module, Token& token) {
  const bool wasLow = (token.flags & CKF_USER_PIN_COUNT_LOW) != 0;
  refresh(module);
  token.lastTry = wasLow && (token.flags & CKF_USER_PIN_COUNT_LOW) != 0;
  if (token.lastTry) token.flags |= CKF_USER_PIN_FINAL_TRY;
}

std::optional<CK_SLOT_ID> TokenTable::takeEvent() {
  if (events_.empty()) return std::nullopt;
  return events_.extract(events_.begin()).value();
}

}  // namespace tavrin::standard
