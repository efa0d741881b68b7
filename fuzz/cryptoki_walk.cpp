// Random walks through Cryptoki: a byte string is played as calls with valid, null, stale and foreign handles,
// templates and lengths, over the scripted device library, whose tokens come, go and fail underneath. Every answer that
// the model of slots, sessions, logins and operations predicts is compared, and every session's state after each call.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <set>

#include "fuzz_input.h"
#include "pkcs11.h"
#include "session_model.h"
#include "slots/device_monitor.h"
#include "slots/token_sessions.h"
#include "walk.h"

namespace {

constexpr CK_SLOT_ID firstSlot = 0x50000001;
constexpr std::size_t mostSessions = 12;
const char* const devices[] = {"TK1", "TK2", "TK3"};

class Walk {
 public:
  // Every walk begins with three tokens that are listed, no session, and nobody logged in.
  Walk(const std::uint8_t* data, std::size_t size) : input_(data, size) {
    fake::reset();
    for (const char* serial : devices) plug(serial);
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
    model_.slots = {std::begin(devices), std::end(devices)};
  }

  void run() {
    static constexpr void (Walk::*steps[])() = {
        &Walk::changeDevices, &Walk::lookAtSlots, &Walk::open,      &Walk::open,      &Walk::close,
        &Walk::login,         &Walk::login,       &Walk::logout,    &Walk::setPin,    &Walk::startSearch,
        &Walk::search,        &Walk::begin,       &Walk::begin,     &Walk::proceed,   &Walk::proceed,
        &Walk::proceed,       &Walk::useObject,   &Walk::useObject, &Walk::useObject, &Walk::fail,
        &Walk::restart};
    while (!input_.isEmpty()) {
      (this->*steps[input_.below(std::size(steps))])();
      ++callsMade;
      compareSessions();
    }
  }

 private:
  // Often an open session, at times a closed one or no session at all.
  CK_SESSION_HANDLE anySession() {
    const std::size_t choice = input_.byte();
    if (choice < 240 && !model_.sessions.empty()) {
      return std::next(model_.sessions.begin(), static_cast<long>(choice % model_.sessions.size()))->first;
    }
    static constexpr CK_SESSION_HANDLE strangers[] = {0, 0x60000000, 0x6000000D, 0x70000001, 0xFFFFFFFF};
    return choice % 2 == 0 ? closed_ : strangers[choice % std::size(strangers)];
  }

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
    const std::string serial = devices[input_.below(std::size(devices))];
    const auto isIt = [&](const fake::Device& device) { return device.info.serialNumber == serial; };
    if (std::erase_if(fake::edit()->devices, isIt) == 0) plug(serial);
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
    closed_ = handle;
  }

  std::string anyPin() {
    static const std::string pins[] = {"1234", "4321", "12345", "123", std::string(63, 'x'), std::string(64, 'x')};
    const std::size_t choice = input_.byte();
    return pins[choice < 200 ? choice % 3 : choice % std::size(pins)];
  }
  static bool isTooShortOrLong(const std::string& pin) { return pin.size() < 4 || pin.size() > 63; }

  void login() {
    const CK_SESSION_HANDLE handle = anySession();
    const auto user = static_cast<CK_USER_TYPE>(input_.chance(180) ? CKU_USER : input_.below(3));
    std::string pin = anyPin();
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
    std::string before = anyPin();
    std::string after = anyPin();
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
    if (session && code == CKR_OK) session->operation = 1;
  }

  void search() {
    const CK_SESSION_HANDLE handle = anySession();
    const bool ends = input_.chance(128);
    const auto room = static_cast<CK_ULONG>(input_.below(9));
    const auto found = std::make_unique<CK_OBJECT_HANDLE[]>(room);
    CK_ULONG count = 0;
    const CK_RV code = ends ? C_FindObjectsFinal(handle) : C_FindObjects(handle, found.get(), room, &count);
    ModelSession* session = sessionOf("a search", handle, code);
    if (!session) return;
    same("a search", code, session->operation == 1 ? CKR_OK : CKR_OPERATION_NOT_INITIALIZED);
    if (code == CKR_OK && count > room) stop("the number of objects found", count, room);
    if (ends && code == CKR_OK) session->operation = 0;
  }

  struct Begin {
    const char* name;
    std::function<CK_RV()> call;
    unsigned operation;
    bool duringDigest;  // allowed while a digest is active
    unsigned deadEnd;   // what it then becomes
    bool asksForLogin;  // refused in a read-only public session
  };

  void begin() {
    static constexpr CK_MECHANISM_TYPE types[] = {
        CKM_RSA_PKCS, CKM_SHA256,       CKM_SHA256_RSA_PKCS,     CKM_ECDSA_SHA256, CKM_RSA_PKCS_OAEP,
        CKM_SHA_1,    CKM_RSA_PKCS_PSS, CKM_SHA512_RSA_PKCS_PSS, CKM_ECDH1_DERIVE, 0x80000001};
    const CK_SESSION_HANDLE handle = anySession();
    const CK_OBJECT_HANDLE key = anyObject();
    std::string parameter = input_.text(40);
    const bool plain = input_.chance(200);
    CK_MECHANISM mechanism{types[input_.below(std::size(types))], plain ? nullptr : parameter.data(),
                           plain ? 0 : lengthOf(parameter)};
    CK_MECHANISM_PTR given = input_.chance(8) ? nullptr : &mechanism;
    const Begin begins[] = {{"C_DigestInit", [&] { return C_DigestInit(handle, given); }, 4, true, 4, true},
                            {"C_SignInit", [&] { return C_SignInit(handle, given, key); }, 5, false, 0, true},
                            {"C_VerifyInit", [&] { return C_VerifyInit(handle, given, key); }, 7, false, 0, false},
                            {"C_EncryptInit", [&] { return C_EncryptInit(handle, given, key); }, 2, true, 9, false},
                            {"C_DecryptInit", [&] { return C_DecryptInit(handle, given, key); }, 3, true, 10, true}};
    const Begin& chosen = begins[input_.below(std::size(begins))];
    const CK_RV code = chosen.call();
    ModelSession* session = sessionOf(chosen.name, handle, code);
    if (!session) return;
    if (chosen.asksForLogin && session->state == CKS_RO_PUBLIC_SESSION) {
      return same(chosen.name, code, CKR_SESSION_HANDLE_INVALID);
    }
    const bool free = session->operation == 0 || (session->operation == 4 && chosen.duringDigest);
    if (!free) return same(chosen.name, code, CKR_OPERATION_ACTIVE);
    if (code == CKR_OPERATION_ACTIVE || code == CKR_OPERATION_NOT_INITIALIZED) stop(chosen.name, code, CKR_OK);
    if (code == CKR_OK) session->operation = session->operation == 4 ? chosen.deadEnd : chosen.operation;
  }

  enum Ends { never = 0, onResult = 1, onFailure = 2, always = 4 };
  struct Proceed {
    const char* name;
    std::function<CK_RV()> call;
    unsigned operation;
    unsigned ends;
  };

  // One call of an operation; the data and the room for the result are as large as they say.
  void proceed() {
    const CK_SESSION_HANDLE handle = anySession();
    const std::string text = input_.text(64);
    const auto data = std::make_unique<CK_BYTE[]>(text.size());
    std::memcpy(data.get(), text.data(), text.size());
    const CK_ULONG size = lengthOf(text);
    CK_BYTE_PTR in = input_.chance(8) ? nullptr : data.get();
    CK_BYTE buffer[2048];
    CK_BYTE_PTR out = input_.chance(64) ? nullptr : buffer;
    CK_ULONG room = sizeof buffer;
    CK_ULONG_PTR outSize = input_.chance(8) ? nullptr : &room;
    const Proceed steps[] = {
        {"C_Digest", [&] { return C_Digest(handle, in, size, out, outSize); }, 4, onResult},
        {"C_DigestUpdate", [&] { return C_DigestUpdate(handle, in, size); }, 4, never},
        {"C_DigestFinal", [&] { return C_DigestFinal(handle, out, outSize); }, 4, onResult},
        {"C_Sign", [&] { return C_Sign(handle, in, size, out, outSize); }, 5, onResult | onFailure},
        {"C_SignUpdate", [&] { return C_SignUpdate(handle, in, size); }, 5, onFailure},
        {"C_SignFinal", [&] { return C_SignFinal(handle, out, outSize); }, 5, onResult | onFailure},
        {"C_Verify", [&] { return C_Verify(handle, in, size, in, size); }, 7, always},
        {"C_VerifyUpdate", [&] { return C_VerifyUpdate(handle, in, size); }, 7, onFailure},
        {"C_VerifyFinal", [&] { return C_VerifyFinal(handle, in, size); }, 7, always},
        {"C_Encrypt", [&] { return C_Encrypt(handle, in, size, out, outSize); }, 2, onResult | onFailure},
        {"C_Decrypt", [&] { return C_Decrypt(handle, in, size, out, outSize); }, 3, onResult}};
    const Proceed& step = steps[input_.below(std::size(steps))];
    const CK_RV code = step.call();
    ModelSession* session = sessionOf(step.name, handle, code);
    if (!session) return;
    if (session->operation != step.operation) return same(step.name, code, CKR_OPERATION_NOT_INITIALIZED);
    if (code == CKR_OPERATION_NOT_INITIALIZED) stop(step.name, code, CKR_OK);
    const std::string name = step.name;
    const bool takesData = name.find("Final") == name.npos || name == "C_VerifyFinal";
    const bool givesResult = name.find("Update") == name.npos && name.find("Verify") == name.npos;
    const bool lacksArgument = (takesData && (!in || size == 0)) || (givesResult && !outSize);
    if (lacksArgument != (code == CKR_ARGUMENTS_BAD)) stop(step.name, code, CKR_ARGUMENTS_BAD);
    unsigned happened = code == CKR_OK && out ? onResult : never;
    if (code == CKR_FUNCTION_FAILED || code == CKR_SIGNATURE_INVALID) happened = onFailure;
    if (code != CKR_ARGUMENTS_BAD) happened |= always;
    if ((step.ends & happened) != 0) session->operation = 0;
  }

  struct ObjectCall {
    const char* name;
    std::function<CK_RV()> call;
    CK_RV readOnly = CKR_OK;  // how it is refused in a read-only session, if it is
  };

  void useObject() {
    const CK_SESSION_HANDLE handle = anySession();
    const CK_OBJECT_HANDLE object = anyObject();
    RandomTemplate wanted(input_);
    CK_MECHANISM generation{input_.chance(128) ? CKM_RSA_PKCS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    std::string peer = input_.text(8);
    const auto kdf = static_cast<CK_EC_KDF_TYPE>(1 + input_.below(6));
    CK_ECDH1_DERIVE_PARAMS parameters{kdf, 0, nullptr, lengthOf(peer), bytesOf(peer)};
    CK_MECHANISM derivation{CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    CK_BYTE bytes[16];
    const auto few = static_cast<CK_ULONG>(input_.below(sizeof bytes + 1));
    CK_OBJECT_HANDLE made[2] = {};
    CK_ULONG size = 0;
    const ObjectCall calls[] = {
        {"C_GetObjectSize", [&] { return C_GetObjectSize(handle, object, &size); }},
        {"C_GetAttributeValue", [&] { return C_GetAttributeValue(handle, object, wanted.data(), wanted.size()); }},
        {"C_SetAttributeValue", [&] { return C_SetAttributeValue(handle, object, wanted.data(), wanted.size()); }},
        {"C_CreateObject", [&] { return C_CreateObject(handle, wanted.data(), wanted.size(), made); }},
        {"C_GenerateKeyPair",
         [&] {
           RandomTemplate other(input_);
           return C_GenerateKeyPair(handle, &generation, wanted.data(), wanted.size(), other.data(), other.size(), made,
                                    made + 1);
         },
         CKR_SESSION_HANDLE_INVALID},
        {"C_DeriveKey", [&] { return C_DeriveKey(handle, &derivation, object, wanted.data(), wanted.size(), made); }},
        {"C_DestroyObject", [&] { return C_DestroyObject(handle, object); }, CKR_SESSION_READ_ONLY},
        {"C_GenerateRandom", [&] { return C_GenerateRandom(handle, bytes, few); }}};
    const ObjectCall& chosen = calls[input_.below(std::size(calls))];
    const CK_RV code = chosen.call();
    const ModelSession* session = sessionOf(chosen.name, handle, code);
    if (session && session->isReadOnly() && chosen.readOnly != CKR_OK) same(chosen.name, code, chosen.readOnly);
  }

  void fail() {
    static constexpr const char* operations[] = {
        "signHash",          "initHash",         "updateHash",        "finalHash",  "verifySignatureHash",
        "encrypt",           "decrypt",          "ecdhDerive",        "initDevice", "generateKeyPair",
        "importCertificate", "validatePassword", "changeUserPassword"};
    const char* operation = operations[input_.below(std::size(operations))];
    if (faults_.insert(operation).second) fake::fail(operation, 7);
  }
  // Whether the operation, which has just been called, met a fault.
  bool takeFault(const std::string& operation) { return faults_.erase(operation) != 0; }

  // Costs a thread, so it comes rarely.
  void restart() {
    if (!input_.chance(8)) return;
    same("C_Finalize", C_Finalize(nullptr), model_.initialized ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED);
    model_.finalize();
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
  CK_SESSION_HANDLE closed_ = 0;
  std::set<std::string> faults_;  // of operations that the walk knows to be called, those still to strike
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  startWalk();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Walk(data, size).run();
  return 0;
}
