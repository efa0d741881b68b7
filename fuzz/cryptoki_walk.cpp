// Random walks through Cryptoki: a byte string is played as calls with valid, null, stale and foreign handles,
// templates and lengths, over the scripted device library, whose tokens come, go and fail underneath. Every result that
// the model of slots, sessions, logins and operations predicts is compared, and every session's state after each call.
// The model has what an application may rely on, and shares no code with the module.
#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "slots/device_monitor.h"
#include "slots/token_sessions.h"
#include "walk.h"

namespace {

constexpr CK_SLOT_ID firstSlot = 0x50000001;
constexpr unsigned deadEnd = 9;

struct ModelSession {
  CK_SLOT_ID slot;
  std::string device;
  CK_STATE state;
  unsigned operation = 0;  // as the log numbers them: 1 search, 2 encryption, 3 decryption, 4 digest, 5 signing, ...

  unsigned begun() const { return operation == deadEnd ? 0 : operation; }
  bool isReadOnly() const { return state == CKS_RO_PUBLIC_SESSION || state == CKS_RO_USER_FUNCTIONS; }
  bool isPublic() const { return state == CKS_RO_PUBLIC_SESSION || state == CKS_RW_PUBLIC_SESSION; }
  bool isUser() const { return state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS; }
};

class SessionModel {
 public:
  bool initialized = true;
  std::vector<std::string> slots;  // the devices as they were last listed
  std::map<CK_SESSION_HANDLE, ModelSession> sessions;
  std::string password;  // of the user who is logged in

  // The code of every call that names a session, unless the session is open.
  std::optional<CK_RV> refusal(CK_SESSION_HANDLE handle) const {
    if (!initialized) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (sessions.count(handle) == 0) return CKR_SESSION_HANDLE_INVALID;
    return std::nullopt;
  }
  std::optional<CK_RV> slotRefusal(CK_SLOT_ID slot) const {
    if (!initialized) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (slot < firstSlot || slot - firstSlot >= slots.size()) return CKR_SLOT_ID_INVALID;
    return std::nullopt;
  }

  CK_SESSION_HANDLE open(CK_SLOT_ID slot, CK_FLAGS flags) {
    const CK_STATE publicState = (flags & CKF_RW_SESSION) != 0 ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
    const CK_SESSION_HANDLE handle = sessions.empty() ? 0x60000001 : sessions.rbegin()->first + 1;
    sessions[handle] = {slot, slots[slot - firstSlot], password.empty() ? publicState : publicState + 1};
    return handle;
  }

  CK_RV login(CK_SESSION_HANDLE handle, CK_USER_TYPE user, const std::string& pin) {
    if (user == CKU_USER) password = pin;
    CK_RV result = CKR_OK;
    for (auto& [other, session] : sessions) {
      if (session.device != sessions.at(handle).device) continue;
      const bool isOfficer = session.state == CKS_RW_SO_FUNCTIONS;
      if (isOfficer) {
        result = user == CKU_USER ? CKR_USER_ANOTHER_ALREADY_LOGGED_IN : CKR_USER_ALREADY_LOGGED_IN;
      } else if (user == CKU_USER) {
        session.state = session.isReadOnly() ? CKS_RO_USER_FUNCTIONS : CKS_RW_USER_FUNCTIONS;
      } else if (session.isReadOnly()) {
        result = CKR_SESSION_READ_ONLY_EXISTS;
      } else {
        session.state = CKS_RW_SO_FUNCTIONS;
      }
    }
    return result;
  }

  void logout(CK_SESSION_HANDLE handle) {
    for (auto& [other, session] : sessions) {
      if (session.device == sessions.at(handle).device) lower(session);
    }
    password.clear();
  }

  // Users of removed tokens are logged out, security officers are not.
  void lookAtDevices(const std::vector<std::string>& connected) {
    for (auto& [handle, session] : sessions) {
      if (!session.isUser() || std::count(connected.begin(), connected.end(), session.device) != 0) continue;
      lower(session);
      password.clear();
    }
  }

 private:
  static void lower(ModelSession& session) {
    session.state = session.isReadOnly() ? CKS_RO_PUBLIC_SESSION : CKS_RW_PUBLIC_SESSION;
  }
};

class Walk {
 public:
  // Every walk begins with three tokens that are listed, no session, and nobody logged in.
  Walk(const std::uint8_t* data, std::size_t size) : input_(data, size) {
    fake::reset();
    for (const char* serial : serials) plug(serial);
    fake::edit()->counter = 3;
    initialize();
    CK_SLOT_ID slots[3];
    CK_ULONG count = 3;
    CK_SESSION_HANDLE session = 0;
    CK_BYTE pin[] = "1234";
    same("C_GetSlotList", C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);
    C_CloseAllSessions(firstSlot);
    C_OpenSession(firstSlot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session);
    C_Login(session, CKU_USER, pin, 4);
    same("C_Logout", C_Logout(session), CKR_OK);
    same("C_CloseSession", C_CloseSession(session), CKR_OK);
    model_.slots = {std::begin(serials), std::end(serials)};
  }

  void run() {
    static constexpr void (Walk::*steps[])() = {
        &Walk::changeDevices,  &Walk::lookAtSlots, &Walk::open,      &Walk::open,      &Walk::close,
        &Walk::login,          &Walk::login,       &Walk::logout,    &Walk::setPin,    &Walk::startSearch,
        &Walk::continueSearch, &Walk::begin,       &Walk::begin,     &Walk::proceed,   &Walk::proceed,
        &Walk::proceed,        &Walk::useObject,   &Walk::useObject, &Walk::useObject, &Walk::fail,
        &Walk::restart};
    while (!input_.isEmpty()) {
      (this->*steps[input_.below(std::size(steps))])();
      ++callsMade;
      compareSessions();
    }
  }

 private:
  CK_SESSION_HANDLE anySession() { return choice_.any(input_, model_.sessions); }

  CK_OBJECT_HANDLE anyObject() {
    static constexpr CK_OBJECT_HANDLE objects[] = {0x70000001, 0x70000002, 0x70001001, 0x70001002, 0x70002001,
                                                   0x70000020, 0x70001021, 0x70002022, 0x70003000, 0x70003001,
                                                   0,          0x60000001, 0x70002000, 0x7FFFFFFF, 0xFFFFFFFF};
    const std::size_t choice = input_.byte();
    return choice < 160 ? objects[choice % 5] : objects[choice % std::size(objects)];
  }

  CK_SLOT_ID anySlot() { return firstSlot - 1 + static_cast<CK_SLOT_ID>(input_.below(5)); }

  // The session that a call was for; null when the model refuses the call before its own checks come.
  ModelSession* sessionOf(const char* what, CK_SESSION_HANDLE handle, CK_RV code) {
    const auto refusal = model_.refusal(handle);
    if (refusal) same(what, code, *refusal);
    return refusal ? nullptr : &model_.sessions.at(handle);
  }

  void compareSessions() {
    CK_SESSION_INFO info{};
    for (const auto& [handle, session] : model_.sessions) {
      same("C_GetSessionInfo", C_GetSessionInfo(handle, &info), CKR_OK);
      same("a session's state", info.state, session.state);
      same("a session's slot", info.slotID, session.slot);
    }
  }

  std::vector<std::string> connected() {
    std::vector<std::string> names;
    for (const fake::Device& device : fake::edit()->devices) names.push_back(device.info.serialNumber);
    return names;
  }

  void changeDevices() {
    const std::string serial = serials[input_.below(std::size(serials))];
    const auto isIt = [&](const fake::Device& device) { return device.info.serialNumber == serial; };
    if (std::erase_if(fake::edit()->devices, isIt) == 0 || input_.chance(192)) plug(serial);
    if (!model_.initialized || input_.chance(64)) return;
    tavrin::logOutSessionsWithoutDevice(connected());
    model_.lookAtDevices(connected());
  }

  void lookAtSlots() {
    CK_SLOT_INFO slotInfo;
    CK_TOKEN_INFO tokenInfo;
    const CK_SLOT_ID slot = anySlot();
    const CK_RV expected = model_.slotRefusal(slot).value_or(CKR_OK);
    same("C_GetSlotInfo", C_GetSlotInfo(slot, &slotInfo), expected);
    same("C_GetTokenInfo", C_GetTokenInfo(slot, &tokenInfo), expected);
    CK_SLOT_ID slots[4];
    CK_ULONG count = static_cast<CK_ULONG>(input_.below(5));
    const bool query = input_.chance(64);
    std::vector<std::string> names = connected();
    const CK_RV code = C_GetSlotList(CK_TRUE, query ? nullptr : slots, &count);
    if (!model_.initialized) return same("C_GetSlotList", code, CKR_CRYPTOKI_NOT_INITIALIZED);
    if (names.empty()) model_.slots.clear();
    if (code != CKR_OK) return same("C_GetSlotList", code, CKR_BUFFER_TOO_SMALL);
    same("the number of slots", count, static_cast<CK_ULONG>(names.size()));
    std::sort(names.begin(), names.end());
    if (!query) model_.slots = names;
  }

  void open() {
    const CK_SLOT_ID slot = anySlot();
    const CK_FLAGS flags = input_.chance(240) ? CKF_SERIAL_SESSION | (input_.byte() & CKF_RW_SESSION) : 0;
    CK_SESSION_HANDLE handle = 0;
    if (model_.sessions.size() >= mostSessions) return;
    const CK_RV code = C_OpenSession(slot, flags, nullptr, nullptr, &handle);
    if (const auto refusal = model_.slotRefusal(slot)) return same("C_OpenSession", code, *refusal);
    if (flags == 0) return same("C_OpenSession", code, CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    same("C_OpenSession", code, CKR_OK);
    same("the new session", handle, model_.open(slot, flags));
  }

  void close() {
    if (input_.chance(16)) {
      const CK_SLOT_ID slot = anySlot();
      const CK_RV code = C_CloseAllSessions(slot);
      if (const auto refusal = model_.slotRefusal(slot)) return same("C_CloseAllSessions", code, *refusal);
      same("C_CloseAllSessions", code, CKR_OK);
      return model_.sessions.clear();
    }
    const CK_SESSION_HANDLE handle = anySession();
    const CK_RV code = C_CloseSession(handle);
    if (!sessionOf("C_CloseSession", handle, code)) return;
    same("C_CloseSession", code, CKR_OK);
    model_.sessions.erase(handle);
    choice_.closed = handle;
  }

  void login() {
    const CK_SESSION_HANDLE handle = anySession();
    const auto user = static_cast<CK_USER_TYPE>(input_.chance(180) ? CKU_USER : input_.below(3));
    std::string pin = anyPin(input_);
    const CK_RV code = C_Login(handle, user, bytesOf(pin), lengthOf(pin));
    const ModelSession* session = sessionOf("C_Login", handle, code);
    if (!session) return;
    if (user > CKU_USER) return same("C_Login", code, CKR_USER_TYPE_INVALID);
    if (user == CKU_USER && session->isUser()) return same("C_Login", code, CKR_USER_ALREADY_LOGGED_IN);
    if (isTooShortOrLong(pin)) return same("C_Login", code, CKR_PIN_LEN_RANGE);
    const bool asksDevice = user == CKU_SO || pin != model_.password;
    if (asksDevice && takeFault("validatePassword")) return same("C_Login", code, CKR_PIN_INCORRECT);
    same("C_Login", code, model_.login(handle, user, pin));
  }

  void logout() {
    const CK_SESSION_HANDLE handle = anySession();
    const CK_RV code = C_Logout(handle);
    const ModelSession* session = sessionOf("C_Logout", handle, code);
    if (!session) return;
    if (session->isPublic()) return same("C_Logout", code, CKR_USER_NOT_LOGGED_IN);
    same("C_Logout", code, CKR_OK);
    model_.logout(handle);
  }

  void setPin() {
    const CK_SESSION_HANDLE handle = anySession();
    std::string before = anyPin(input_);
    std::string after = anyPin(input_);
    const CK_RV code = C_SetPIN(handle, bytesOf(before), lengthOf(before), bytesOf(after), lengthOf(after));
    const ModelSession* session = sessionOf("C_SetPIN", handle, code);
    if (!session) return;
    if (session->isReadOnly()) return same("C_SetPIN", code, CKR_SESSION_READ_ONLY);
    if (isTooShortOrLong(before) || isTooShortOrLong(after)) return same("C_SetPIN", code, CKR_PIN_LEN_RANGE);
    if (takeFault("changeUserPassword")) return same("C_SetPIN", code, CKR_FUNCTION_FAILED);
    same("C_SetPIN", code, CKR_OK);
    if (!model_.password.empty()) model_.password = after;
  }

  void startSearch() {
    const CK_SESSION_HANDLE handle = anySession();
    RandomTemplate wanted(input_);
    const CK_RV code = C_FindObjectsInit(handle, wanted.data(), wanted.size());
    ModelSession* session = sessionOf("C_FindObjectsInit", handle, code);
    if (session && code == CKR_OK) session->operation = search;
  }

  void continueSearch() {
    const CK_SESSION_HANDLE handle = anySession();
    const bool ends = input_.chance(128);
    const CK_RV code = makeSearchCall(input_, handle, ends);
    ModelSession* session = sessionOf("a search", handle, code);
    if (!session) return;
    same("a search", code, session->operation == search ? CKR_OK : CKR_OPERATION_NOT_INITIALIZED);
    if (ends && code == CKR_OK) session->operation = 0;
  }

  void begin() {
    const CK_SESSION_HANDLE handle = anySession();
    const auto [operation, code] = makeInitCall(input_, handle, anyObject());
    ModelSession* session = sessionOf("an Init call", handle, code);
    if (!session) return;
    const bool asksForLogin = operation == digest || operation == sign || operation == decrypt;
    if (asksForLogin && session->state == CKS_RO_PUBLIC_SESSION)
      return same("an Init call", code, CKR_SESSION_HANDLE_INVALID);
    const bool duringDigest = session->operation == digest && operation != sign && operation != verify;
    if (session->operation != 0 && !duringDigest) return same("an Init call", code, CKR_OPERATION_ACTIVE);
    if (code == CKR_OPERATION_ACTIVE || code == CKR_OPERATION_NOT_INITIALIZED) stop("an Init call", code, CKR_OK);
    // No call proceeds with an encryption or decryption that began during a digest.
    if (code == CKR_OK) session->operation = duringDigest && operation != digest ? deadEnd : operation;
  }

  void proceed() {
    const DataCall call = makeDataCall(input_, choice_, model_.sessions, dataCallsOfModule);
    ModelSession* session = sessionOf(call.name, call.session, call.code);
    if (!session) return;
    if (session->operation != call.operation) return same(call.name, call.code, CKR_OPERATION_NOT_INITIALIZED);
    if (call.code == CKR_OPERATION_NOT_INITIALIZED) stop(call.name, call.code, CKR_OK);
    if (call.lacksArgument != (call.code == CKR_ARGUMENTS_BAD)) stop(call.name, call.code, CKR_ARGUMENTS_BAD);
    const bool failed = call.code == CKR_FUNCTION_FAILED || call.code == CKR_SIGNATURE_INVALID;
    const bool delivered = call.code == CKR_OK && !call.isQuery && call.part != update;
    bool ends = delivered || (failed && call.operation != digest && call.operation != decrypt);
    if (call.operation == verify && call.part != update) ends = !call.lacksArgument;
    if (ends) session->operation = 0;
  }

  void useObject() {
    const CK_SESSION_HANDLE handle = anySession();
    const ObjectCall call = makeObjectCall(input_, handle, anyObject(), objectCallsOfModule);
    const ModelSession* session = sessionOf(call.name.c_str(), handle, call.code);
    if (!session || !session->isReadOnly()) return;
    if (call.name == "C_GenerateKeyPair") same("C_GenerateKeyPair", call.code, CKR_SESSION_HANDLE_INVALID);
    if (call.name == "C_DestroyObject") same("C_DestroyObject", call.code, CKR_SESSION_READ_ONLY);
  }

  void fail() {
    const std::string& operation = deviceOperations[input_.below(deviceOperations.size())];
    if (faults_.insert(operation).second) fake::fail(operation, 7);
  }
  // Whether the operation just called failed as scripted.
  bool takeFault(const std::string& operation) { return faults_.erase(operation) != 0; }

  // Rare, because it starts a thread.
  void restart() {
    if (model_.initialized && !input_.chance(8)) return;
    same("C_Finalize", C_Finalize(nullptr), model_.initialized ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED);
    model_ = {};
    model_.initialized = false;
    if (input_.chance(64)) return;
    same("C_Initialize", initialize(), CKR_OK);
    model_.initialized = true;
  }

  // The thread that looks at the devices would do so at moments of its own; here the walk decides.
  static CK_RV initialize() {
    const CK_RV code = C_Initialize(nullptr);
    if (code == CKR_OK) tavrin::stopDeviceMonitor();
    return code;
  }

  FuzzInput input_;
  SessionModel model_;
  SessionChoice choice_;
  std::set<std::string> faults_;  // operations that are set to fail once and were not called yet
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  startWalk();
  C_GetFunctionList(&f);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Walk(data, size).run();
  return 0;
}
