#include "tool/module_probe.h"

#include <algorithm>
#include <cstdio>

#include "pkcs11.h"
#include "softtoken/failure.h"
#include "softtoken/token_folders.h"
#include "tool/console.h"
#include "tool/log_files.h"
#include "tool/module_file.h"

namespace tool {
namespace {

using softtoken::Bytes;
using softtoken::ByteView;
using softtoken::Failure;
using softtoken::Status;

void check(CK_RV result, const char* call) {
  if (result == CKR_OK) return;
  char code[24];
  std::snprintf(code, sizeof code, "0x%08lX", static_cast<unsigned long>(result));
  throw Failure(Status::deviceFault, std::string(call) + " failed with " + code);
}

// Fields end at a NUL, or are padded with blanks.
template <std::size_t size>
std::string textOf(const CK_UTF8CHAR (&field)[size]) {
  std::string text(field, std::find(field, field + size, '\0'));
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

std::string textOf(CK_VERSION version) { return std::to_string(version.major) + "." + std::to_string(version.minor); }

class Library {
 public:
  Library(const std::filesystem::path& file, std::string& warning) : handle_(loadLibrary(file, warning)) {}
  ~Library() { unloadLibrary(handle_); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  void* find(const char* name) const { return findFunction(handle_, name); }

 private:
  void* handle_;
};

class InitialisedModule {
 public:
  explicit InitialisedModule(CK_FUNCTION_LIST* functions) : functions_(functions) {
    check(functions->C_Initialize(nullptr), "C_Initialize");
  }
  ~InitialisedModule() { functions_->C_Finalize(nullptr); }
  InitialisedModule(const InitialisedModule&) = delete;
  InitialisedModule& operator=(const InitialisedModule&) = delete;

 private:
  CK_FUNCTION_LIST* functions_;
};

// A read-only session.
class Session {
 public:
  Session(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot) : functions_(functions) {
    check(functions->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &handle_), "C_OpenSession");
  }
  ~Session() { functions_->C_CloseSession(handle_); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  std::vector<CK_OBJECT_HANDLE> objects(CK_OBJECT_CLASS objectClass) const {
    CK_ATTRIBUTE wanted = {CKA_CLASS, &objectClass, sizeof objectClass};
    check(functions_->C_FindObjectsInit(handle_, &wanted, 1), "C_FindObjectsInit");
    std::vector<CK_OBJECT_HANDLE> found;
    CK_OBJECT_HANDLE batch[64];
    CK_ULONG count = 0;
    CK_RV result = CKR_OK;
    while ((result = functions_->C_FindObjects(handle_, batch, std::size(batch), &count)) == CKR_OK && count > 0)
      found.insert(found.end(), batch, batch + count);
    functions_->C_FindObjectsFinal(handle_);
    check(result, "C_FindObjects");
    return found;
  }

  Bytes bytes(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    CK_ATTRIBUTE attribute = {type, nullptr, 0};
    check(functions_->C_GetAttributeValue(handle_, object, &attribute, 1), "C_GetAttributeValue");
    if (attribute.ulValueLen == CK_UNAVAILABLE_INFORMATION) return {};
    Bytes value(attribute.ulValueLen);
    attribute.pValue = value.data();
    if (!value.empty()) check(functions_->C_GetAttributeValue(handle_, object, &attribute, 1), "C_GetAttributeValue");
    return value;
  }

  std::string text(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    const Bytes value = bytes(object, type);
    return {value.begin(), std::ranges::find(value, 0)};
  }

  CK_ULONG number(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    CK_ULONG value = 0;
    CK_ATTRIBUTE attribute = {type, &value, sizeof value};
    check(functions_->C_GetAttributeValue(handle_, object, &attribute, 1), "C_GetAttributeValue");
    return value;
  }

 private:
  CK_FUNCTION_LIST* functions_;
  CK_SESSION_HANDLE handle_ = 0;
};

// An EC point comes inside a DER OCTET STRING.
Bytes pointIn(const Bytes& octetString) {
  const std::size_t header = octetString.size() > 1 && octetString[1] == 0x81 ? 3 : 2;
  if (octetString.size() < header) return {};
  return {octetString.begin() + static_cast<std::ptrdiff_t>(header), octetString.end()};
}

// An uncompressed point is a byte and two coordinates.
std::string curveOf(const Bytes& point) {
  const std::size_t coordinate = point.size() / 2;
  return coordinate == 66 ? "P-521" : "P-" + std::to_string(8 * coordinate);
}

PublicKey readKey(const Session& session, CK_OBJECT_HANDLE object) {
  PublicKey key{{}, session.text(object, CKA_LABEL), session.bytes(object, CKA_ID), {}};
  if (session.number(object, CKA_KEY_TYPE) == CKK_RSA) {
    key.value = session.bytes(object, CKA_MODULUS);
    key.type = "RSA " + std::to_string(8 * key.value.size());
  } else {
    key.value = pointIn(session.bytes(object, CKA_EC_POINT));
    key.type = curveOf(key.value);
  }
  return key;
}

TriesLeft triesIn(CK_FLAGS flags) {
  if ((flags & CKF_USER_PIN_LOCKED) != 0) return TriesLeft::none;
  return (flags & CKF_USER_PIN_COUNT_LOW) != 0 ? TriesLeft::few : TriesLeft::many;
}

void readToken(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot, ProbedToken& token) {
  CK_TOKEN_INFO info{};
  check(functions->C_GetTokenInfo(slot, &info), "C_GetTokenInfo");
  token.label = textOf(info.label);
  token.serial = textOf(info.serialNumber);
  token.firmware = textOf(info.firmwareVersion);
  token.model = textOf(info.model);
  token.tries = triesIn(info.flags);
  const Session session(functions, slot);
  for (const CK_OBJECT_HANDLE object : session.objects(CKO_PUBLIC_KEY)) token.keys.push_back(readKey(session, object));
  for (const CK_OBJECT_HANDLE object : session.objects(CKO_CERTIFICATE)) {
    token.certificates.push_back(
        {session.text(object, CKA_LABEL), session.bytes(object, CKA_ID), session.bytes(object, CKA_VALUE)});
  }
}

// Cryptoki reports no more than "few" tries; a software token's files hold the number, and other tokens of this user.
void addSoftTokens(ProbedModule& result) try {
  for (const softtoken::TokenSummary& known : softtoken::allTokens()) {
    if (!known.state) {
      result.setAside.push_back({known.name, "unreadable", known.problem});
      continue;
    }
    const auto token = std::ranges::find(result.tokens, known.state->serial, &ProbedToken::serial);
    if (!known.plugged) {
      result.setAside.push_back({known.name, "unplugged", {}});
    } else if (token != result.tokens.end()) {
      token->exactTries = known.tries.user;
      token->name = known.name;
      if (known.state->objectCount() >= known.state->capacity) result.setAside.push_back({known.name, "full", {}});
    }
  }
} catch (const std::exception& failure) {
  result.setAside.push_back({softtoken::textOf(softtoken::tokenRoot().filename()), "unreadable", failure.what()});
}

// Without a connected token the device library is not known; the folder of software tokens shows that they are used.
bool isSoftToken(const ProbedModule& result) {
  if (!result.tokens.empty()) return std::ranges::any_of(result.tokens, &ProbedToken::isSoftToken);
  std::error_code error;
  return std::filesystem::exists(softtoken::tokenRoot(), error);
}

std::vector<CK_SLOT_ID> slotsWithToken(CK_FUNCTION_LIST* functions) {
  CK_ULONG count = 0;
  check(functions->C_GetSlotList(CK_TRUE, nullptr, &count), "C_GetSlotList");
  std::vector<CK_SLOT_ID> slots(count);
  if (count > 0) check(functions->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
  slots.resize(std::min<std::size_t>(count, slots.size()));
  return slots;
}

void readModule(CK_FUNCTION_LIST* functions, ProbedModule& result) {
  const InitialisedModule initialised(functions);
  CK_INFO info{};
  check(functions->C_GetInfo(&info), "C_GetInfo");
  result.libraryVersion = textOf(info.libraryVersion);
  result.cryptokiVersion = textOf(info.cryptokiVersion);
  for (const CK_SLOT_ID slot : slotsWithToken(functions)) {
    ProbedToken& token = result.tokens.emplace_back();
    try {
      readToken(functions, slot, token);
    } catch (const Failure& failure) {
      token.problem = failure.what();
    }
  }
  if (!isSoftToken(result)) return;
  result.softTokenFolder = softtoken::textOf(softtoken::tokenRoot());
  addSoftTokens(result);
}

// Takes the lines of this program's own calls out of the log, where they would hide those of applications.
class OwnLog {
 public:
  OwnLog() : file_(logFolder() / "tavrin-tool" / (today() + ".LOG")) {
    std::error_code error;
    existed_ = std::filesystem::exists(file_, error);
    if (existed_) size_ = std::filesystem::file_size(file_, error);
  }
  ~OwnLog() {
    std::error_code error;
    if (existed_) {
      std::filesystem::resize_file(file_, size_, error);
    } else if (std::filesystem::remove(file_, error)) {
      std::filesystem::remove(file_.parent_path(), error);  // if nothing else is in it
    }
  }
  OwnLog(const OwnLog&) = delete;
  OwnLog& operator=(const OwnLog&) = delete;

 private:
  std::filesystem::path file_;
  bool existed_ = false;
  std::uintmax_t size_ = 0;
};

LoadedFile loadedFile(const std::string& path) { return {path, path.empty() ? std::string() : fileVersion(path)}; }

void loadAndRead(const std::filesystem::path& file, ProbedModule& result) {
  const Library library(file, result.warning);
  void* address = library.find("C_GetFunctionList");
  if (!address) throw Failure(Status::notFound, softtoken::textOf(file) + " is no Cryptoki module");
  result.module = loadedFile(fileOfFunction(address));
  result.deviceLibrary = loadedFile(fileOfLibrary(deviceLibraryFileName));
  const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(address);
  CK_FUNCTION_LIST* functions = nullptr;
  check(getFunctionList(&functions), "C_GetFunctionList");
  readModule(functions, result);
}

}  // namespace

std::filesystem::path defaultModule() {
  const std::filesystem::path folder = programFolder();
  const std::filesystem::path beside = folder / moduleFileName;
  const std::filesystem::path installed = (folder / ".." / TAVRIN_LIBRARY_FOLDER / moduleFileName).lexically_normal();
  std::error_code error;
  return !std::filesystem::exists(beside, error) && std::filesystem::exists(installed, error) ? installed : beside;
}

ProbedModule probeModule(const std::filesystem::path& file) {
  ProbedModule result;
  const OwnLog ownLog;
  const SilencedOutput silence;
  try {
    loadAndRead(file, result);
  } catch (const Failure& failure) {
    result.problem = failure.what();
  }
  return result;
}

}  // namespace tool
