// Random walks through the standard module over the module, whose tokens come, go and fail. A model predicts
// the codes. It checks that signatures use the right token and key, that length queries call no device operation, and
// that a handle never names two objects.
#include <chrono>
#include <initializer_list>
#include <map>
#include <set>
#include <thread>

#include "load_module.h"
#include "walk.h"

namespace {

enum Login { nobody, user, officer };

struct ModelToken {
  CK_SLOT_ID slot = 0;  // for the life of the process
  bool present = false;
  bool unsure = false;   // removed, perhaps not noticed yet
  bool changed = false;  // its objects differ from those of a new token
  bool hides = false;    // a public key was destroyed alone: its number is hidden for the life of the library
  Login login = nobody;
};
ModelToken tokens[std::size(serials)];

struct ModelSession {
  ModelToken* token;
  bool readWrite;
  bool dead = false;
  std::set<Operation> active{};
  std::set<Operation> inParts{};  // have had a part, so that data in one call are refused

  unsigned begun() const { return active.empty() ? 0U : *active.rbegin(); }
  CK_STATE state() const {
    if (token->login == officer) return CKS_RW_SO_FUNCTIONS;
    return (readWrite ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION) + (token->login == user ? 1U : 0U);
  }
};

class Walk {
 public:
  // Every walk begins with three tokens that have just come, and no session.
  Walk(const std::uint8_t* data, std::size_t size) : input_(data, size) {
    fake::reset();
    refresh();
    for (const char* serial : serials) plug(serial);
    fake::edit()->counter = 3;
    fake::edit()->resultsAsLongAsReal = true;
    fake::edit()->record = [this](const std::string& line) {
      for (const char* name : {"signHash", "decrypt", "ecdhDerive", "encrypt "}) {
        if (line.starts_with(name)) asked_ = line;
      }
    };
    for (ModelToken& token : tokens) token = {.slot = token.slot, .present = true, .hides = token.hides};
    readSlots();
    CK_SLOT_ID slot = 0;
    while (f->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr) == CKR_OK) {
    }
  }
  ~Walk() {
    for (const auto& [handle, session] : sessions_) same("C_CloseSession", f->C_CloseSession(handle), CKR_OK);
    fake::edit()->record = nullptr;
  }

  void run() {
    static constexpr void (Walk::*steps[])() = {
        &Walk::changeDevices,  &Walk::lookAtSlots, &Walk::open,      &Walk::open,      &Walk::close,
        &Walk::logIn,          &Walk::logIn,       &Walk::logOut,    &Walk::setPin,    &Walk::startSearch,
        &Walk::continueSearch, &Walk::begin,       &Walk::begin,     &Walk::proceed,   &Walk::proceed,
        &Walk::proceed,        &Walk::useObject,   &Walk::useObject, &Walk::useObject, &Walk::restart};
    while (!input_.isEmpty()) {
      asked_.clear();
      faulty_ = input_.chance(24);
      if (faulty_) fail();
      (this->*steps[input_.below(std::size(steps))])();
      fake::edit()->faults.clear();
      ++callsMade;
      if (quiet_ == 0 || --quiet_ == 0) settle();
    }
  }

 private:
  // The code must be one of these, or any failure when an operation of the device library fails.
  void expect(const char* what, CK_RV code, std::initializer_list<CK_RV> codes) {
    if (faulty_ && code != CKR_OK) return;
    if (std::find(codes.begin(), codes.end(), code) == codes.end()) stop(what, code, *codes.begin());
  }

  void fail() {
    const auto kind = static_cast<fake::Fault::Kind>(input_.below(5));
    static constexpr int values[] = {7, -1, 0, 100000};
    fake::fault(deviceOperations[1 + input_.below(deviceOperations.size() - 1)], kind, values[input_.below(4)],
                static_cast<int>(1 + input_.below(2)));
  }

  // The library is made to look at the devices, and all its sessions must be as the model has them.
  void settle() {
    quiet_ = 0;
    for (ModelToken& token : tokens) {
      if (!token.unsure) continue;
      token = {.slot = token.slot, .hides = token.hides};
      events_.insert(token.slot);
      for (auto& [handle, session] : sessions_) session.dead = session.dead || session.token == &token;
    }
    refresh();
    CK_SLOT_ID slot = 0;
    std::set<CK_SLOT_ID> seen;
    while (f->C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr) == CKR_OK) seen.insert(slot);
    if (seen != events_)
      stop("the number of slots with events", static_cast<CK_ULONG>(seen.size()),
           static_cast<CK_ULONG>(events_.size()));
    events_.clear();
    CK_SESSION_INFO info{};
    for (const auto& [handle, session] : sessions_) {
      same("C_GetSessionInfo", f->C_GetSessionInfo(handle, &info), session.dead ? CKR_DEVICE_REMOVED : CKR_OK);
      if (session.dead) continue;
      same("a session's state", info.state, session.state());
      same("a session's flags", info.flags, CKF_SERIAL_SESSION | (session.readWrite ? CKF_RW_SESSION : 0U));
      same("a session's slot", info.slotID, session.token->slot);
    }
  }

  static void refresh() {
    CK_ULONG count = 0;
    same("C_GetSlotList", f->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    same("the number of tokens", count, static_cast<CK_ULONG>(fake::edit()->devices.size()));
  }

  // Each token is in the slot that it had before.
  static void readSlots() {
    CK_SLOT_ID slots[8];
    CK_ULONG count = 8;
    same("C_GetSlotList", f->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    same("C_GetSlotList", f->C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);
    for (CK_ULONG i = 0; i < count; ++i) {
      CK_TOKEN_INFO info;
      same("C_GetTokenInfo", f->C_GetTokenInfo(slots[i], &info), CKR_OK);
      ModelToken& token = tokens[info.serialNumber[2] - '1'];
      if (token.slot != 0) same("a token's slot", slots[i], token.slot);
      token.slot = slots[i];
    }
  }

  CK_SESSION_HANDLE anySession() { return choice_.any(input_, sessions_); }

  // The session of a call, if its state is certain.
  ModelSession* sessionOf(const char* what, CK_SESSION_HANDLE handle, CK_RV code) {
    const auto place = sessions_.find(handle);
    if (place == sessions_.end()) return expect(what, code, {CKR_SESSION_HANDLE_INVALID}), nullptr;
    if (place->second.token->unsure) return nullptr;
    if (place->second.dead) return expect(what, code, {CKR_DEVICE_REMOVED}), nullptr;
    return &place->second;
  }

  // Mostly an object that the session's token had when it was searched last.
  CK_OBJECT_HANDLE anyObject(CK_SESSION_HANDLE session) {
    const std::size_t choice = input_.byte();
    const auto place = sessions_.find(session);
    const bool own = choice < 200 && place != sessions_.end();
    const auto& found = found_[own ? place->second.token : &tokens[choice % std::size(tokens)]];
    return choice < 240 && !found.empty() ? found[input_.below(found.size())] : choice % 8;
  }

  void changeDevices() {
    const std::size_t which = input_.below(std::size(tokens));
    ModelToken& token = tokens[which];
    if (token.unsure) return;
    if (!token.present) {
      plug(serials[which]);
      token.present = true;
      events_.insert(token.slot);
      return refresh();
    }
    if (input_.chance(192)) return;
    std::erase_if(fake::edit()->devices,
                  [&](const auto& device) { return device.info.serialNumber == serials[which]; });
    token.unsure = true;
    quiet_ = 1 + static_cast<unsigned>(input_.below(5));
  }

  void lookAtSlots() {
    const ModelToken& token = tokens[input_.below(std::size(tokens))];
    CK_SLOT_INFO slot{};
    CK_TOKEN_INFO info{};
    same("C_GetSlotInfo", f->C_GetSlotInfo(token.slot, &slot), CKR_OK);
    const bool present = token.present && !token.unsure;
    same("CKF_TOKEN_PRESENT", slot.flags & CKF_TOKEN_PRESENT, present ? CKF_TOKEN_PRESENT : 0U);
    const CK_RV code = f->C_GetTokenInfo(token.slot, &info);
    same("C_GetTokenInfo", code, present ? CKR_OK : CKR_TOKEN_NOT_PRESENT);
    if (!present) return;
    CK_ULONG count = 0;
    for (const auto& [handle, session] : sessions_) count += session.token == &token && !session.dead ? 1 : 0;
    same("the number of sessions", info.ulSessionCount, count);
    same("an unknown slot", f->C_GetTokenInfo(1234, &info), CKR_SLOT_ID_INVALID);
  }

  void open() {
    ModelToken& token = tokens[input_.below(std::size(tokens))];
    const CK_FLAGS flags = input_.chance(240) ? CKF_SERIAL_SESSION | (input_.byte() & CKF_RW_SESSION) : 0;
    CK_SESSION_HANDLE handle = 0;
    if (sessions_.size() >= mostSessions) return;
    const CK_RV code = f->C_OpenSession(token.slot, flags, nullptr, nullptr, &handle);
    const bool readWrite = (flags & CKF_RW_SESSION) != 0;
    if (token.unsure || !token.present) {
      expect("C_OpenSession", code,
             {flags == 0 ? CKR_SESSION_PARALLEL_NOT_SUPPORTED : CKR_TOKEN_NOT_PRESENT, CKR_TOKEN_NOT_PRESENT});
    } else if (flags == 0) {
      expect("C_OpenSession", code, {CKR_SESSION_PARALLEL_NOT_SUPPORTED});
    } else {
      expect("C_OpenSession", code, {!readWrite && token.login == officer ? CKR_SESSION_READ_WRITE_SO_EXISTS : CKR_OK});
    }
    if (code != CKR_OK) return;
    if (handle <= last_) stop("a new session", handle, last_ + 1);
    last_ = handle;
    sessions_.insert({handle, {&token, readWrite}});
    if (!token.unsure) readAll(handle, sessions_.at(handle));
  }

  void endLoginWithLastSession(ModelToken& token) {
    for (const auto& [handle, session] : sessions_) {
      if (session.token == &token && !session.dead) return;
    }
    token.login = nobody;
  }

  void close() {
    if (input_.chance(32)) {
      ModelToken& token = tokens[input_.below(std::size(tokens))];
      expect("C_CloseAllSessions", f->C_CloseAllSessions(token.slot), {CKR_OK});
      std::erase_if(sessions_, [&](const auto& one) { return one.second.token == &token; });
      return endLoginWithLastSession(token);
    }
    const CK_SESSION_HANDLE handle = anySession();
    const CK_RV code = f->C_CloseSession(handle);
    const auto place = sessions_.find(handle);
    expect("C_CloseSession", code, {place == sessions_.end() ? CKR_SESSION_HANDLE_INVALID : CKR_OK});
    if (place == sessions_.end()) return;
    ModelToken& token = *place->second.token;
    sessions_.erase(place);
    choice_.closed = handle;
    endLoginWithLastSession(token);
  }

  void logIn() {
    const CK_SESSION_HANDLE handle = anySession();
    const auto type = static_cast<CK_USER_TYPE>(input_.chance(180) ? CKU_USER : input_.below(4));
    std::string pin = anyPin(input_);
    const bool wrong = !faulty_ && input_.chance(32);
    if (wrong) fake::fail("validatePassword", 7);
    const CK_RV code = f->C_Login(handle, type, bytesOf(pin), lengthOf(pin));
    const ModelSession* session = sessionOf("C_Login", handle, code);
    if (!session) return;
    ModelToken& token = *session->token;
    if (type > CKU_CONTEXT_SPECIFIC) return expect("C_Login", code, {CKR_USER_TYPE_INVALID});
    if (type == CKU_CONTEXT_SPECIFIC) {
      return expect("C_Login", code, {CKR_OPERATION_NOT_INITIALIZED, CKR_USER_ANOTHER_ALREADY_LOGGED_IN});
    }
    const Login wanted = type == CKU_SO ? officer : user;
    if (token.login == wanted) return expect("C_Login", code, {CKR_USER_ALREADY_LOGGED_IN});
    if (token.login != nobody) return expect("C_Login", code, {CKR_USER_ANOTHER_ALREADY_LOGGED_IN});
    for (const auto& [other, one] : sessions_) {
      const bool reads = type == CKU_SO && one.token == &token && !one.dead && !one.readWrite;
      if (reads) return expect("C_Login", code, {CKR_SESSION_READ_ONLY_EXISTS});
    }
    expect("C_Login", code, {wrong || isTooShortOrLong(pin) ? CKR_PIN_INCORRECT : CKR_OK});
    if (code != CKR_OK) return;
    token.login = wanted;
    readAll(handle, *session);
  }

  void logOut() {
    const CK_SESSION_HANDLE handle = anySession();
    const CK_RV code = f->C_Logout(handle);
    const ModelSession* session = sessionOf("C_Logout", handle, code);
    if (!session) return;
    expect("C_Logout", code, {session->token->login == nobody ? CKR_USER_NOT_LOGGED_IN : CKR_OK});
    if (code != CKR_OK) return;
    session->token->login = nobody;
    for (auto& [other, one] : sessions_) {
      if (one.token == session->token)
        std::erase_if(one.active, [](auto what) { return what == sign || what == decrypt; });
    }
  }

  void setPin() {
    const CK_SESSION_HANDLE handle = anySession();
    std::string before = anyPin(input_), after = anyPin(input_);
    const CK_RV code = f->C_SetPIN(handle, bytesOf(before), lengthOf(before), bytesOf(after), lengthOf(after));
    const ModelSession* session = sessionOf("C_SetPIN", handle, code);
    if (!session) return;
    if (!session->readWrite) return expect("C_SetPIN", code, {CKR_SESSION_READ_ONLY});
    if (isTooShortOrLong(after)) return expect("C_SetPIN", code, {CKR_PIN_LEN_RANGE});
    if (isTooShortOrLong(before)) return expect("C_SetPIN", code, {CKR_PIN_INCORRECT});
    expect("C_SetPIN", code, {session->token->login == officer ? CKR_FUNCTION_NOT_SUPPORTED : CKR_OK});
  }

  void startSearch() {
    const CK_SESSION_HANDLE handle = anySession();
    RandomTemplate wanted(input_);
    const CK_RV code = f->C_FindObjectsInit(handle, wanted.data(), wanted.size());
    ModelSession* session = sessionOf("C_FindObjectsInit", handle, code);
    if (!session) return;
    if (session->active.contains(search)) return expect("C_FindObjectsInit", code, {CKR_OPERATION_ACTIVE});
    if (code == CKR_OK) session->active.insert(search);
  }

  // Searches for all objects of a token that no call has changed.
  void readAll(CK_SESSION_HANDLE handle, const ModelSession& session) {
    if (session.token->changed || session.active.contains(search)) return;
    CK_OBJECT_HANDLE objects[8];
    CK_ULONG count = 0;
    expect("C_FindObjectsInit", f->C_FindObjectsInit(handle, nullptr, 0), {CKR_OK});
    expect("C_FindObjects", f->C_FindObjects(handle, objects, 8, &count), {CKR_OK});
    expect("C_FindObjectsFinal", f->C_FindObjectsFinal(handle), {CKR_OK});
    if (faulty_) return;
    const CK_ULONG all = session.token->login == user ? 5 : 3;
    if (!session.token->hides || count > all) same("the number of objects", count, all);
    for (CK_ULONG i = 0; i < count; ++i) recognise(handle, *session.token, objects[i]);
    found_[session.token].assign(objects, objects + count);
  }

  // What the handle names is what it named when it was first seen, in this walk or an earlier one.
  static void recognise(CK_SESSION_HANDLE handle, const ModelToken& token, CK_OBJECT_HANDLE object) {
    static std::map<CK_OBJECT_HANDLE, std::string> known;
    CK_OBJECT_CLASS objectClass = 99;
    CK_KEY_TYPE keyType = 99;
    CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &objectClass, sizeof objectClass},
                                 {CKA_KEY_TYPE, &keyType, sizeof keyType}};
    f->C_GetAttributeValue(handle, object, attributes, 2);
    const std::string is =
        std::to_string(token.slot) + ' ' + std::to_string(objectClass) + ' ' + std::to_string(keyType);
    const auto [place, isNew] = known.insert({object, is});
    if (!isNew && place->second != is)
      stop(("the object " + is + " that was " + place->second).c_str(), object, object);
  }

  void continueSearch() {
    const CK_SESSION_HANDLE handle = anySession();
    const bool ends = input_.chance(128);
    const CK_RV code = makeSearchCall(input_, handle, ends);
    ModelSession* session = sessionOf("a search", handle, code);
    if (!session) return;
    expect("a search", code, {session->active.contains(search) ? CKR_OK : CKR_OPERATION_NOT_INITIALIZED});
    if (ends && code == CKR_OK) session->active.erase(search);
  }

  void begin() {
    const CK_SESSION_HANDLE handle = anySession();
    const CK_OBJECT_HANDLE key = anyObject(handle);
    const auto [operation, code] = makeInitCall(input_, handle, key);
    ModelSession* session = sessionOf("an Init call", handle, code);
    if (!session) return;
    if (session->active.contains(operation)) {
      if (code == CKR_OK) stop("an Init call", code, CKR_OPERATION_ACTIVE);
      return;
    }
    if (code == CKR_OPERATION_ACTIVE || code == CKR_OPERATION_NOT_INITIALIZED) stop("an Init call", code, CKR_OK);
    if (code != CKR_OK) return;
    const bool isPrivate = operation == sign || operation == decrypt;
    if (isPrivate && session->token->login != user) stop("an Init call", code, CKR_USER_NOT_LOGGED_IN);
    session->active.insert(operation);
    session->inParts.erase(operation);
    keys_[{handle, operation}] = key;
  }

  void proceed() {
    const DataCall call = makeDataCall(input_, choice_, sessions_, allDataCalls);
    const Operation operation = call.operation;
    ModelSession* session = sessionOf(call.name, call.session, call.code);
    if (!session) return;
    if (call.part == whole && session->inParts.contains(operation)) session->active.erase(operation);
    if (!session->active.contains(operation)) return same(call.name, call.code, CKR_OPERATION_NOT_INITIALIZED);
    if (call.code == CKR_OPERATION_NOT_INITIALIZED) stop(call.name, call.code, CKR_OK);
    const bool tooSmall = call.code == CKR_BUFFER_TOO_SMALL, done = call.code == CKR_OK;
    if ((call.isQuery || tooSmall) && (operation == sign || operation == encrypt) && !asked_.empty())
      stop(("the device was asked for a length: " + asked_).c_str(), call.code, 0);
    if (done && !call.isQuery && call.length > call.room) stop("the length of a result", call.length, call.room);
    const bool queried = call.isQuery && operation != verify;
    if ((tooSmall || (done && queried && call.part != update)) && call.length <= call.room)
      stop("the length that is needed", call.length, call.room + 1);
    if (operation == sign && !asked_.empty()) checkKey(*session, keys_[{call.session, sign}], call.session);
    if (!tooSmall && !(done && (call.part == update || queried))) session->active.erase(operation);
    if (done && call.part == update && (!call.isQuery || operation >= digest)) session->inParts.insert(operation);
  }

  // The device signed with the token of the session and with the key of the Init call.
  void checkKey(const ModelSession& session, CK_OBJECT_HANDLE key, CK_SESSION_HANDLE handle) {
    const std::string serial = serials[session.token - tokens];
    CK_KEY_TYPE keyType = 99;
    CK_ATTRIBUTE attribute{CKA_KEY_TYPE, &keyType, sizeof keyType};
    if (session.token->changed || f->C_GetAttributeValue(handle, key, &attribute, 1) != CKR_OK) return;
    const std::string expected = "signHash " + serial + (keyType == CKK_RSA ? " key-1 " : " key-2 ");
    if (!asked_.starts_with(expected)) stop(("a signature asked as " + asked_).c_str(), 1, 0);
  }

  void useObject() {
    const CK_SESSION_HANDLE handle = anySession();
    const CK_OBJECT_HANDLE object = anyObject(handle);
    CK_BBOOL onToken = CK_FALSE;
    CK_ATTRIBUTE place{CKA_TOKEN, &onToken, 1};
    f->C_GetAttributeValue(handle, object, &place, 1);
    const ObjectCall call = makeObjectCall(input_, handle, object, allObjectCalls);
    const ModelSession* session = sessionOf(call.name.c_str(), handle, call.code);
    if (!session) return;
    const bool done = call.code == CKR_OK;
    if (done && call.does == ObjectCall::writes && onToken != CK_FALSE && !session->readWrite)
      stop(call.name.c_str(), call.code, CKR_SESSION_READ_ONLY);
    if (call.does != ObjectCall::reads && (done || faulty_)) session->token->changed = true;
    if (done && call.name == "C_DestroyObject") session->token->hides = true;
    if (done && call.does == ObjectCall::needsUser && session->token->login != user)
      stop(call.name.c_str(), call.code, CKR_USER_NOT_LOGGED_IN);
    if (call.made != 0) found_[session->token].push_back(call.made);
  }

  // Costs a thread, so it comes rarely.
  void restart() {
    if (!input_.chance(8)) return;
    same("C_Finalize", f->C_Finalize(nullptr), CKR_OK);
    CK_ULONG count = 0;
    same("C_GetSlotList", f->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_CRYPTOKI_NOT_INITIALIZED);
    fake::edit()->faults.clear();
    same("C_Initialize", f->C_Initialize(nullptr), CKR_OK);
    sessions_.clear();
    found_.clear();
    for (ModelToken& token : tokens)
      token = {.slot = token.slot,
               .present = token.present && !token.unsure,
               .changed = token.changed,
               .hides = token.hides};
    quiet_ = 0;
    events_.clear();
    readSlots();
  }

  FuzzInput input_;
  std::map<CK_SESSION_HANDLE, ModelSession> sessions_;
  std::map<std::pair<CK_SESSION_HANDLE, Operation>, CK_OBJECT_HANDLE> keys_;
  std::map<const ModelToken*, std::vector<CK_OBJECT_HANDLE>> found_;
  std::string asked_;            // the last operation of the device library that uses a key
  std::set<CK_SLOT_ID> events_;  // of the slots whose token was inserted or removed
  SessionChoice choice_;
  static inline CK_SESSION_HANDLE last_ = 0;
  bool faulty_ = false;
  unsigned quiet_ = 0;  // steps until the library is made to look at the devices
};

// Between C_SignInit and C_Sign another process replaces the key, or the token is removed and inserted, which only the
// module's own thread notices. No signature may use the new key, and no operation may run without a PIN.
void changeBetweenInitAndSign() {
  for (const bool replaced : {true, false}) {
    fake::edit()->devices.clear();
    plug(serials[0]);
    CK_SLOT_ID slot = 0;
    CK_ULONG count = 1;
    CK_SESSION_HANDLE session = 0;
    CK_OBJECT_HANDLE key = 0;
    CK_BYTE signature[256];
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE wanted{CKA_CLASS, &objectClass, sizeof objectClass};
    CK_MECHANISM mechanism{CKM_SHA256_RSA_PKCS, nullptr, 0};
    std::string pin = "1234", asked;
    f->C_GetSlotList(CK_TRUE, nullptr, &count);
    same("C_GetSlotList", f->C_GetSlotList(CK_TRUE, &slot, &count), CKR_OK);
    same("C_OpenSession", f->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
    same("C_Login", f->C_Login(session, CKU_USER, bytesOf(pin), lengthOf(pin)), CKR_OK);
    same("C_FindObjectsInit", f->C_FindObjectsInit(session, &wanted, 1), CKR_OK);
    same("C_FindObjects", f->C_FindObjects(session, &key, 1, &count), CKR_OK);
    same("C_SignInit", f->C_SignInit(session, &mechanism, key), CKR_OK);
    if (replaced) {
      fake::edit()->devices[0].keyPairs[0] = fake::keyPair(1, 2, std::string(256, 'N'), "New");
    } else {
      fake::edit()->devices.clear();
      for (const int seen = fake::backgroundListings(); fake::backgroundListings() < seen + 2;)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      plug(serials[0]);
    }
    fake::edit()->record = [&](const std::string& line) {
      if (line.starts_with("signHash") || line.starts_with("validatePassword")) asked = line;
    };
    same("C_Sign", f->C_Sign(session, bytesOf(pin), lengthOf(pin), signature, &(count = sizeof signature)),
         replaced ? CKR_KEY_HANDLE_INVALID : CKR_DEVICE_REMOVED);
    if (!asked.empty()) stop(("the token was asked: " + asked).c_str(), 1, 0);
    fake::edit()->record = nullptr;
    same("C_CloseSession", f->C_CloseSession(session), CKR_OK);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  startWalk();
  openLibrary(TavrinPKCS11);  // libFuzzer's counters must not be unloaded
  const auto list =
      reinterpret_cast<CK_C_GetFunctionList>(findFunction(openLibrary(TavrinPKCS11Standard), "C_GetFunctionList"));
  same("C_GetFunctionList", list(&f), CKR_OK);
  fake::reset();
  // A start that fails after the module's own leaves the module as it was.
  plug(serials[0]);
  fake::fault("getTokenInfo", fake::Fault::Kind::outOfMemory);
  same("C_Initialize without memory", f->C_Initialize(nullptr), CKR_HOST_MEMORY);
  same("C_Initialize", f->C_Initialize(nullptr), CKR_OK);
  changeBetweenInitAndSign();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Walk(data, size).run();
  return 0;
}
