#include "tool/module_probe.h"

#include <algorithm>

#include "devlib/device_constants.h"
#include "softtoken/failure.h"
#include "softtoken/token_folders.h"
#include "tool/console.h"
#include "tool/module_session.h"
#include "tool/own_log.h"
#include "tool/shared_library.h"

namespace tool {
namespace {

using softtoken::Bytes;
using softtoken::ByteView;
using softtoken::Failure;

std::string versionText(CK_VERSION version) {
  return std::to_string(version.major) + "." + std::to_string(version.minor);
}

// CKA_EC_POINT is a DER OCTET STRING that contains the point.
Bytes pointIn(const Bytes& octetString) {
  const std::size_t header = octetString.size() > 1 && octetString[1] == 0x81 ? 3 : 2;
  if (octetString.size() < header) return {};
  return {octetString.begin() + static_cast<std::ptrdiff_t>(header), octetString.end()};
}

// The name of the type of a key whose modulus or coordinate has this many bytes.
std::string typeName(tavrin::KeyAlgorithm algorithm, std::size_t bytes) {
  for (const tavrin::KeyTypeInfo& row : tavrin::keyTypes)
    if (row.algorithm == algorithm && (row.bits + 7) / 8 == bytes) return row.name;
  return (algorithm == tavrin::KeyAlgorithm::rsa ? "RSA " : "EC ") + std::to_string(8 * bytes);
}

PublicKey readKey(const Session& session, CK_OBJECT_HANDLE object) {
  PublicKey key{{}, session.text(object, CKA_LABEL), session.bytes(object, CKA_ID), {}};
  if (session.number(object, CKA_KEY_TYPE) == CKK_RSA) {
    key.value = session.bytes(object, CKA_MODULUS);
    key.type = typeName(tavrin::KeyAlgorithm::rsa, key.value.size());
  } else {
    key.value = pointIn(session.bytes(object, CKA_EC_POINT));
    key.type = typeName(tavrin::KeyAlgorithm::ec, key.value.size() / 2);  // a point is a byte and two coordinates
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
  token.firmware = versionText(info.firmwareVersion);
  token.model = textOf(info.model);
  token.tries = triesIn(info.flags);
  const Session session(functions, slot, true);
  for (const CK_OBJECT_HANDLE object : session.objects(CKO_PUBLIC_KEY)) token.keys.push_back(readKey(session, object));
  for (const CK_OBJECT_HANDLE object : session.objects(CKO_CERTIFICATE)) {
    token.certificates.push_back(
        {session.text(object, CKA_LABEL), session.bytes(object, CKA_ID), session.bytes(object, CKA_VALUE)});
  }
}

// Cryptoki reports only that few tries are left. The files of software tokens hold the exact number. They also show
// this user's tokens that no application sees.
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

// Without a connected token the device library is unknown. Software tokens are then assumed if their folder exists.
bool isSoftToken(const ProbedModule& result) {
  if (!result.tokens.empty()) return std::ranges::any_of(result.tokens, &ProbedToken::isSoftToken);
  std::error_code error;
  return std::filesystem::exists(softtoken::tokenRoot(), error);
}

void readModule(CK_FUNCTION_LIST* functions, ProbedModule& result) {
  const InitialisedModule initialised(functions);
  CK_INFO info{};
  check(functions->C_GetInfo(&info), "C_GetInfo");
  result.libraryVersion = versionText(info.libraryVersion);
  result.cryptokiVersion = versionText(info.cryptokiVersion);
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

LoadedFile loadedFile(const std::string& path) { return {path, path.empty() ? std::string() : fileVersion(path)}; }

void loadAndRead(const std::filesystem::path& file, ProbedModule& result) {
  const LoadedModule module(file, result.warning);
  result.module = loadedFile(module.path());
  result.deviceLibrary = loadedFile(fileOfLibrary(deviceLibraryFileName));
  readModule(module.functions(), result);
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
