// The operations of the device library. They check arguments, find the token and return results.
#include "devlib/device_library.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "softtoken/certificates.h"
#include "softtoken/key_material.h"
#include "softtoken/library_state.h"
#include "softtoken/text.h"
#include "softtoken/token_objects.h"

namespace {

using namespace softtoken;  // NOLINT(google-build-using-namespace)

// Runs an operation's body and turns what it throws into a status.
template <class Body>
int statusOf(Body&& body) noexcept {
  try {
    const OperationGate gate;
    body(LibraryState::get());
    return static_cast<int>(Status::ok);
  } catch (const Failure& failure) {
    return static_cast<int>(failure.status());
  } catch (const std::bad_alloc&) {
    return static_cast<int>(Status::outOfMemory);
  } catch (...) {
    return static_cast<int>(Status::deviceFault);
  }
}

// The same for an operation that returns its result, which is empty on failure.
template <class Result, class Body>
Result resultOf(Body&& body) noexcept {
  Result result{};
  statusOf([&](LibraryState& library) { result = body(library); });
  return result;
}

// The caller's buffer. Null is allowed only with length 0.
ByteView bytesAt(const std::uint8_t* data, int length) {
  require(length >= 0 && (data || length == 0), "a buffer is null or its length negative");
  return {data, static_cast<std::size_t>(length)};
}

void deliver(ByteView result, std::uint8_t* out, int* length) {
  std::ranges::copy(result, out);
  *length = static_cast<int>(result.size());
}

void deliver(PerThread<SecretBytes>& owner, SecretBytes result, std::uint8_t** out, int* length) {
  // An empty vector may have no memory, and callers take null for a failure.
  const auto size = static_cast<int>(result.size());
  if (result.empty()) result.push_back(0);
  *out = owner.keep(std::move(result)).data();
  *length = size;
}

FoundToken findToken(LibraryState& library, const char* device) {
  require(device != nullptr, "no device is named");
  return library.tokens.find(device);
}

struct UnlockedToken {
  std::shared_ptr<Token> token;
  UnlockedState unlocked;

  const TokenState& state() const { return *unlocked.state; }
  const MasterKey& masterKey() const { return unlocked.masterKey; }
  void change(const std::function<void(TokenState&)>& edit) const { token->change(unlocked, edit); }
};

UnlockedToken unlockToken(LibraryState& library, const char* device, const char* password) {
  require(password != nullptr, "there is no password");
  const FoundToken found = findToken(library, device);
  return {found.token, found.token->unlockForUser(password)};
}

// Opens a key pair's private key, which the caller holds for one use.
KeyMaterial openKey(LibraryState& library, const char* device, const std::uint8_t* recordId, const char* password) {
  require(recordId != nullptr, "no record is named");
  const UnlockedToken token = unlockToken(library, device, password);
  const TokenState& state = token.state();
  const StoredKeyPair& pair = state.keyPairs[indexOfKeyPair(state, recordId)];
  std::optional<SecretBytes> privateKey =
      unseal(token.masterKey(), pair.sealedPrivateKey, privateKeyContext(state, pair));
  if (!privateKey) throw Failure(Status::deviceFault, "a private key is damaged");
  const ByteView publicKey = ByteView(pair.publicKey).first(pair.publicKeyLength);
  return {pair.keyType, {publicKey.begin(), publicKey.end()}, std::move(*privateKey)};
}

void setKeyId(TavrinKeyPair& pair, ByteView keyId) {
  require(keyId.size() <= sizeof pair.keyId, "a key id has at most 128 bytes");
  std::ranges::fill(pair.keyId, std::uint8_t{0});
  std::ranges::copy(keyId, pair.keyId);
  pair.keyIdLength = static_cast<std::uint32_t>(keyId.size());
}

// Completes a new record, which has label, usage and perhaps a key ID, and stores it with its key.
TavrinKeyPair storeKeyPair(const UnlockedToken& token, TavrinKeyPair pair, const KeyMaterial& key) {
  pair.keyType = key.keyType;
  pair.deviceFlag = 0;
  fillRandom(pair.recordId);
  std::ranges::fill(pair.publicKey, std::uint8_t{0});
  std::ranges::copy(key.publicKey, pair.publicKey);
  pair.publicKeyLength = static_cast<std::uint32_t>(key.publicKey.size());
  if (pair.keyIdLength == 0) setKeyId(pair, hashOf(GCRY_MD_SHA1, key.publicKey));
  token.change([&](TokenState& state) {
    addKeyPair(state, pair, seal(token.masterKey(), key.privateKey, privateKeyContext(state, pair)));
  });
  return pair;
}

TokenInfo describe(const TokenState& state, Tries tries) {
  TokenInfo info{};
  info.serialNumber = state.serial;
  info.label = state.label;
  info.model = softTokenModel;
  info.firmwareVersion = state.firmware;
  info.remainingRetries = static_cast<std::int32_t>(tries.user);
  return info;
}

// Callers take every failed login for a wrong password, except for a device fault.
int loginStatusOf(int status) {
  switch (static_cast<Status>(status)) {
    case Status::outOfMemory:
    case Status::full:
      return static_cast<int>(Status::deviceFault);
    default:
      return status;
  }
}

Role roleOf(int kind) {
  require(kind == tavrin::userPasswordKind || kind == tavrin::officerPasswordKind, "unknown kind of login");
  return kind == tavrin::userPasswordKind ? Role::user : Role::securityOfficer;
}

Bytes copyOf(ByteView bytes) { return {bytes.begin(), bytes.end()}; }

std::uint32_t bitsOf(EncryptionType type) {
  for (const tavrin::KeyTypeInfo& row : tavrin::keyTypes)
    if (row.algorithm == tavrin::KeyAlgorithm::rsa && EncryptionType{row.encryption} == type) return row.bits;
  throw Failure(Status::badArgument, "unknown type of encryption");
}

// Never destroyed, because a reference to it may be read while the process ends.
template <class Record>
const std::vector<Record>& emptyList() {
  static const auto* const list = new std::vector<Record>;
  return *list;
}

}  // namespace

void tavrin_createInstance(void** instance) {
  if (!instance) return;
  *instance = resultOf<void*>([](LibraryState& library) { return library.openInstance(); });
}

void tavrin_releaseInstance(void* instance) {
  statusOf([&](LibraryState& library) { library.closeInstance(instance); });
}

std::vector<std::string> tavrin_getConnectedDeviceList(bool, void*) {
  return resultOf<std::vector<std::string>>([](LibraryState& library) { return library.tokens.serials(); });
}

TokenInfo tavrin_getTokenInfo(const char* name, void*) {
  return resultOf<TokenInfo>([&](LibraryState& library) {
    const FoundToken found = findToken(library, name);
    return describe(*found.state, found.token->tries());
  });
}

int tavrin_initDevice(const char* device, bool, void*) {
  return statusOf([&](LibraryState& library) { findToken(library, device); });
}

int tavrin_validatePassword(const char* device, const char* password, int kind, int* retryCounter, void*) {
  return loginStatusOf(statusOf([&](LibraryState& library) {
    require(password && retryCounter, "there is no password, or no room for the counter");
    const FoundToken found = findToken(library, device);
    found.token->unlock(roleOf(kind), password, *retryCounter);
  }));
}

bool tavrin_changeUserPassword(const char* device, const char* oldPassword, const char* newPassword,
                               int* failureCounter, bool, bool, void*) {
  const int status = statusOf([&](LibraryState& library) {
    require(oldPassword && newPassword && failureCounter, "there is no password, or no room for the counter");
    findToken(library, device).token->setUserPassword(Role::user, oldPassword, newPassword, *failureCounter);
  });
  return status == static_cast<int>(Status::ok);
}

const std::vector<TavrinKeyPair>& tavrin_getKeyPairList(const char* device, void*) {
  const auto* list = resultOf<const std::vector<TavrinKeyPair>*>([&](LibraryState& library) {
    const std::shared_ptr<const TokenState> state = findToken(library, device).state;
    const ListedKeyPairs& kept = library.listedKeyPairs.change([&](ListedKeyPairs& listed) {
      if (listed.state != state) listed = {state, {state->keyPairs.begin(), state->keyPairs.end()}};
    });
    return &kept.records;
  });
  return list ? *list : emptyList<TavrinKeyPair>();
}

const std::vector<TavrinCertificate>& tavrin_getCertificateList(const char* device, void*) {
  const auto* list = resultOf<const std::vector<TavrinCertificate>*>([&](LibraryState& library) {
    return &library.listedCertificates.keep(findToken(library, device).state)->certificates;
  });
  return list ? *list : emptyList<TavrinCertificate>();
}

int tavrin_generateKeyPair(const char* device, const char* password, TavrinKeyPair* keyPair, void*) {
  return statusOf([&](LibraryState& library) {
    require(keyPair && tavrin::findKeyType(keyPair->keyType) && keyPair->keyIdLength <= sizeof keyPair->keyId,
            "no key pair, or one of an unknown type");
    const UnlockedToken token = unlockToken(library, device, password);
    requireRoom(token.state());
    TavrinKeyPair made{};
    made.usage = keyPair->usage & (tavrin::usageSign | tavrin::usageDecrypt);
    setLabel(made.label, textIn(keyPair->label));
    setKeyId(made, ByteView(keyPair->keyId).first(keyPair->keyIdLength));
    *keyPair = storeKeyPair(token, made, generateKeyMaterial(keyPair->keyType));
  });
}

int tavrin_deleteKeyPair(const char* device, const std::uint8_t* recordId, const char* password, bool, void*) {
  return statusOf([&](LibraryState& library) {
    require(recordId != nullptr, "no record is named");
    const UnlockedToken token = unlockToken(library, device, password);
    token.change([&](TokenState& state) { removeKeyPair(state, recordId); });
  });
}

int tavrin_updateKeyPairDetails(const char* device, const std::uint8_t* recordId, const char* password,
                                const char* label, const std::uint8_t* keyId, int keyIdLength, void*) {
  return statusOf([&](LibraryState& library) {
    require(recordId != nullptr, "no record is named");
    const ByteView newId = bytesAt(keyId, keyIdLength);
    const std::string_view newLabel = label ? label : "";
    const UnlockedToken token = unlockToken(library, device, password);
    token.change([&](TokenState& state) {
      TavrinKeyPair& pair = state.keyPairs[indexOfKeyPair(state, recordId)];
      if (!newLabel.empty()) setLabel(pair.label, newLabel);
      if (!newId.empty()) setKeyId(pair, newId);
    });
  });
}

int tavrin_importCertificate(const char* device, const char* password, TavrinCertificate* certificate, void*) {
  return statusOf([&](LibraryState& library) {
    require(certificate && certificate->certificateLength <= sizeof certificate->certificate &&
                certificate->certIdLength <= sizeof certificate->certId,
            "no certificate, or one that is too long");
    parseCertificate(ByteView(certificate->certificate).first(certificate->certificateLength));
    const UnlockedToken token = unlockToken(library, device, password);
    TavrinCertificate stored = *certificate;
    setLabel(stored.label, textIn(certificate->label));
    fillRandom(stored.recordId);
    token.change([&](TokenState& state) { addCertificate(state, stored); });
    *certificate = stored;
  });
}

int tavrin_deleteCertificate(const char* device, const std::uint8_t* recordId, const char* password, void*) {
  return statusOf([&](LibraryState& library) {
    require(recordId != nullptr, "no record is named");
    const UnlockedToken token = unlockToken(library, device, password);
    token.change([&](TokenState& state) { removeCertificate(state, recordId); });
  });
}

int tavrin_importPfx(const char* device, const char* password, ImportPFXDetails* details, void*) {
  return statusOf([&](LibraryState& library) {
    require(details != nullptr, "there is no key");
    const UnlockedToken token = unlockToken(library, device, password);
    requireRoom(token.state());
    TavrinKeyPair pair{};
    pair.usage = tavrin::usageSign | tavrin::usageDecrypt;
    setLabel(pair.label, details->label);
    pair = storeKeyPair(token, pair, importRsaKeyMaterial(details->modulus, details->privateExponent, details->prime1));
    std::ranges::copy(pair.recordId, details->recordId);
  });
}

int tavrin_getCertificateDetails(const std::uint8_t* der, int length, CertificateDetails* details, void*) {
  return statusOf([&](LibraryState&) {
    require(details != nullptr, "there is no room for the details");
    CertificateFields fields = parseCertificate(bytesAt(der, length));
    details->subjectName = std::move(fields.subjectText);
    details->issuerName = std::move(fields.issuerText);
    std::ranges::fill(details->makerFields, std::uint8_t{0});
  });
}

std::vector<std::uint8_t> tavrin_getCertificateSubject(const std::uint8_t* der, int length, void*) {
  return resultOf<Bytes>([&](LibraryState&) { return copyOf(parseCertificate(bytesAt(der, length)).subject); });
}

std::vector<std::uint8_t> tavrin_getCertificateIssuer(const std::uint8_t* der, int length, void*) {
  return resultOf<Bytes>([&](LibraryState&) { return copyOf(parseCertificate(bytesAt(der, length)).issuer); });
}

std::vector<std::uint8_t> tavrin_getCertificateSerialDER(const std::uint8_t* der, int length, void*) {
  return resultOf<Bytes>([&](LibraryState&) { return copyOf(parseCertificate(bytesAt(der, length)).serial); });
}

std::vector<std::pair<std::string, std::vector<std::uint8_t>>> tavrin_getFilesWithExtensionsAndConvertDER(
    const std::string& folder, const std::vector<std::string>& extensions, void*) {
  using Files = std::vector<std::pair<std::string, std::vector<std::uint8_t>>>;
  return resultOf<Files>([&](LibraryState&) { return certificatesInFolder(folder, extensions); });
}

int tavrin_initHash(const char* device, int hashCode, void** context, void*) {
  return statusOf([&](LibraryState& library) {
    require(context != nullptr, "there is no room for the context");
    findToken(library, device);
    *context = library.hashes.open(hashCode);
  });
}

int tavrin_updateHash(void* context, const std::uint8_t* data, int length, void*) {
  return statusOf([&](LibraryState& library) { library.hashes.update(context, bytesAt(data, length)); });
}

int tavrin_finalHash(void* context, std::uint8_t* digest, int* length, void*) {
  return statusOf([&](LibraryState& library) {
    require(digest && length, "there is no room for the digest");
    deliver(library.hashes.finish(context), digest, length);
  });
}

int tavrin_signHash(const char* device, const std::uint8_t* recordId, const char* password, const std::uint8_t* input,
                    int inputLength, std::uint8_t* signature, int* signatureLength, bool, void*, bool pss) {
  return statusOf([&](LibraryState& library) {
    require(signature && signatureLength, "there is no room for the signature");
    const ByteView data = bytesAt(input, inputLength);
    deliver(signWith(openKey(library, device, recordId, password), data, pss), signature, signatureLength);
  });
}

int tavrin_verifySignatureHash(std::uint32_t keyType, const char* device, const std::uint8_t* input, int inputLength,
                               const std::uint8_t* publicKey, int publicKeyLength, const std::uint8_t* signature,
                               int signatureLength, void*, bool pss) {
  return statusOf([&](LibraryState& library) {
    const ByteView key = bytesAt(publicKey, publicKeyLength);
    const ByteView data = bytesAt(input, inputLength);
    const ByteView proof = bytesAt(signature, signatureLength);
    findToken(library, device);
    verifyWith(keyType, key, data, proof, pss);
  });
}

int tavrin_encrypt(EncryptionType type, PaddingMode padding, const std::uint8_t* data, int dataLength,
                   std::uint8_t* ciphertext, int* ciphertextLength, const std::uint8_t* publicKey, int publicKeyLength,
                   void*) {
  return statusOf([&](LibraryState&) {
    require(ciphertext && ciphertextLength, "there is no room for the ciphertext");
    require(padding == PaddingMode::pkcs1 || padding == PaddingMode::oaep, "unknown padding");
    const ByteView key = bytesAt(publicKey, publicKeyLength);
    const ByteView message = bytesAt(data, dataLength);
    deliver(encryptFor(key, bitsOf(type), message, padding == PaddingMode::oaep), ciphertext, ciphertextLength);
  });
}

int tavrin_decrypt(const char* device, const std::uint8_t* recordId, const char* password,
                   const std::uint8_t* ciphertext, int ciphertextLength, std::uint8_t** plaintext, int* plaintextLength,
                   bool, void*) {
  return statusOf([&](LibraryState& library) {
    require(plaintext && plaintextLength, "there is no room for the plaintext");
    const ByteView data = bytesAt(ciphertext, ciphertextLength);
    deliver(library.plaintexts, decryptWith(openKey(library, device, recordId, password), data), plaintext,
            plaintextLength);
  });
}

int tavrin_ecdhDerive(const char* device, const std::uint8_t* recordId, const char* password,
                      const std::uint8_t* peerPoint, int peerPointLength, std::uint8_t** secret, int* secretLength,
                      void*) {
  return statusOf([&](LibraryState& library) {
    require(secret && secretLength, "there is no room for the secret");
    const ByteView peer = bytesAt(peerPoint, peerPointLength);
    deliver(library.secrets, deriveWith(openKey(library, device, recordId, password), peer), secret, secretLength);
  });
}

int tavrin_generateRamdomNumber(const char* device, int count, std::uint8_t* out, bool, void*) {
  return statusOf([&](LibraryState& library) {
    require(count >= 0 && out, "there is no room for the random bytes");
    findToken(library, device);
    fillRandom({out, static_cast<std::size_t>(count)});
  });
}
