#include "fake_device_library.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fake {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Hash {
  int number;
  int code;
  std::string data;
};

std::shared_mutex scriptMutex;  // readers do not wait for each other, so that they hide no race from ThreadSanitizer
Script script;
std::atomic<std::thread::id> testThread;
std::atomic<int> listings;
std::atomic<int> faultsLeft;  // spares operations the exclusive lock while nothing is to fail
char instanceObject;

// What the library keeps for a thread. Not thread_local itself: mingw destroys such objects after their memory is
// freed.
struct ThreadState {
  Fault struck;  // of the operation that this thread runs
  std::vector<std::unique_ptr<Hash>> hashes;
  std::vector<TavrinKeyPair> keyPairs;
  std::vector<TavrinCertificate> certificates;
  Bytes buffer;
};

ThreadState& mine() {
  static std::mutex mutex;
  static std::list<ThreadState> states;
  thread_local ThreadState* state = nullptr;
  if (!state) {
    const std::lock_guard lock(mutex);
    state = &states.emplace_back();
  }
  return *state;
}

bool onTestThread() { return std::this_thread::get_id() == testThread.load(); }

std::string show(const void* bytes, std::int64_t length) {
  if (!bytes && length != 0) return "null";
  const auto* first = static_cast<const std::uint8_t*>(bytes);
  const auto* last = first + std::max<std::int64_t>(length, 0);
  if (!std::all_of(first, last, [](std::uint8_t byte) { return std::isprint(byte) != 0; })) {
    return hex(bytes, static_cast<std::size_t>(length));
  }
  return "'" + std::string(first, last) + "'";
}

std::string arg(const char* name, std::int64_t value) { return name + ("=" + std::to_string(value)); }
std::string arg(const char* name, const void* bytes, std::int64_t length) { return name + ("=" + show(bytes, length)); }
std::string arg(const char* name, const Bytes& bytes) {
  return arg(name, bytes.data(), static_cast<std::int64_t>(bytes.size()));
}
std::string arg(const char* name, const char* text) {
  return arg(name, text, text ? static_cast<std::int64_t>(std::strlen(text)) : 1);
}
std::string record(const std::uint8_t* recordId) { return {recordId, std::find(recordId, recordId + 16, '\0')}; }
std::string instanceName(const void* instance) {
  if (!instance) return "null";
  return instance == &instanceObject ? "inst" : "stray";
}
std::string contextName(const void* context) {
  for (const auto& hash : mine().hashes) {
    if (hash.get() == context) return arg("ctx", hash->number);
  }
  return context ? "ctx=stray" : "ctx=null";
}

// The fault that is due, or one of status 0.
Fault takeFault(const std::string& operation) {
  Fault none{"", Fault::Kind::status, 0, 0};
  if (faultsLeft.load() == 0) return none;
  const Editor locked;
  const auto fault = std::find_if(script.faults.begin(), script.faults.end(),
                                  [&](const Fault& candidate) { return candidate.operation == operation; });
  if (fault == script.faults.end() || --fault->call > 0) return none;
  Fault taken = *fault;
  script.faults.erase(fault);
  --faultsLeft;
  return taken;
}

// Records the call, and returns the status of the fault that strikes it, or 0.
template <class... Arguments>
int play(const char* operation, const Arguments&... arguments) {
  if (onTestThread() && script.record) {
    std::string line = operation;
    ((line += " ", line += arguments), ...);
    script.record(line);
  }
  const bool monitor = !onTestThread() && std::string("getConnectedDeviceList") == operation;
  Fault& struck = mine().struck;
  struck = takeFault(monitor ? "monitor" : operation);
  if (struck.kind == Fault::Kind::outOfMemory) throw std::bad_alloc();
  if (struck.kind == Fault::Kind::failure) throw std::runtime_error("the device library failed");
  return struck.kind == Fault::Kind::status ? struck.value : 0;
}

// `real` is how long a result of this kind is.
int deliver(std::string result, std::size_t real, std::uint8_t* out, int* length) {
  if (script.resultsAsLongAsReal) result.resize(real, 'x');
  std::copy(result.begin(), result.end(), out);
  const Fault& struck = mine().struck;
  *length = struck.kind == Fault::Kind::length ? struck.value : static_cast<int>(result.size());
  return 0;
}

// The same for results in the library's own buffer.
int lend(const std::string& result, std::size_t real, std::uint8_t** out, int* length) {
  Bytes& buffer = mine().buffer;
  buffer.resize(5000);  // room for wrong lengths
  *out = mine().struck.kind == Fault::Kind::nothing ? nullptr : buffer.data();
  return deliver(result, real, buffer.data(), length);
}

std::string string(const void* bytes, int length) {
  return {static_cast<const char*>(bytes), static_cast<std::size_t>(length)};
}

// A device that does not exist takes everything and keeps nothing.
Device& find(const char* serialNumber) {
  static Device none;
  for (Device& device : script.devices) {
    if (device.info.serialNumber == serialNumber) return device;
  }
  return none = Device();
}

template <class Records>
Records listOf(const char* device, Records Device::*records) {
  const std::shared_lock lock(scriptMutex);
  for (const Device& candidate : script.devices) {
    if (candidate.info.serialNumber == device && candidate.initialized) return candidate.*records;
  }
  return {};
}

std::string listedName(const Device& device) {
  return device.info.serialNumber.empty() ? "none" : device.info.serialNumber;
}

template <std::size_t size>
std::uint32_t fill(std::uint8_t (&field)[size], const std::string& bytes) {
  std::memset(field, 0, size);
  std::memcpy(field, bytes.data(), bytes.size());
  return static_cast<std::uint32_t>(bytes.size());
}

template <class Record>
int erase(std::vector<Record> Device::*records, const char* device, const std::uint8_t* recordId) {
  const Editor locked;
  std::erase_if(find(device).*records, [&](const Record& one) { return record(one.recordId) == record(recordId); });
  return 0;
}

// The parts of a certificate; none if it does not parse.
std::vector<std::string> partsOf(const std::uint8_t* der, int length) {
  std::istringstream stream(string(der, length));
  std::vector<std::string> parts;
  for (std::string part; std::getline(stream, part, '|');) parts.push_back(part);
  return parts.size() == 3 ? parts : std::vector<std::string>();
}

Bytes partOf(const char* operation, std::size_t index, const std::uint8_t* der, int length, void* instance) {
  play(operation, show(der, length), instanceName(instance));
  const auto parts = partsOf(der, length);
  return parts.empty() ? Bytes() : Bytes(parts[index].begin(), parts[index].end());
}

}  // namespace

Editor::Editor() : lock_(scriptMutex) {}
Script* Editor::operator->() const { return &script; }

void reset() {
  const Editor locked;
  script = Script();
  testThread = std::this_thread::get_id();
  listings = faultsLeft = 0;
  mine().hashes.clear();
}

void fail(const std::string& operation, int status, int call) { fault(operation, Fault::Kind::status, status, call); }

void fault(const std::string& operation, Fault::Kind kind, int value, int call) {
  edit()->faults.push_back({operation, kind, value, call});
  ++faultsLeft;
}

int backgroundListings() { return listings; }

Device device(const std::string& serialNumber) {
  Device made{};
  made.info.serialNumber = serialNumber;
  made.info.label = "Label of " + serialNumber;
  made.info.model = "Model T";
  made.info.firmwareVersion = "2.1.7";
  made.info.remainingRetries = 10;
  return made;
}

TavrinKeyPair keyPair(std::uint32_t number, std::uint32_t keyType, const std::string& publicKey,
                      const std::string& label, std::uint32_t usage) {
  TavrinKeyPair made{};
  made.id = number;
  fill(made.recordId, "key-" + std::to_string(number));
  made.publicKeyLength = fill(made.publicKey, publicKey);
  made.keyIdLength = fill(made.keyId, "id-" + std::to_string(number));
  std::memcpy(made.label, label.data(), label.size());
  made.usage = usage;
  made.keyType = keyType;
  return made;
}

TavrinCertificate certificate(std::uint32_t number, const std::string& der, const std::string& label) {
  TavrinCertificate made{};
  made.id = number;
  fill(made.recordId, "crt-" + std::to_string(number));
  made.certificateLength = fill(made.certificate, der);
  made.certIdLength = fill(made.certId, "id-" + std::to_string(number));
  std::memcpy(made.label, label.data(), label.size());
  return made;
}

std::string hex(const void* bytes, std::size_t length) {
  std::string digits;
  for (std::size_t i = 0; i < 2 * length; ++i) {
    digits += "0123456789ABCDEF"[static_cast<const std::uint8_t*>(bytes)[i / 2] >> (i % 2 == 0 ? 4 : 0) & 15];
  }
  return digits;
}

}  // namespace fake

using namespace fake;

void tavrin_createInstance(void** instance) {
  play("createInstance");
  *instance = mine().struck.kind == Fault::Kind::nothing ? nullptr : &instanceObject;
}

void tavrin_releaseInstance(void* instance) { play("releaseInstance", instanceName(instance)); }

std::vector<std::string> tavrin_getConnectedDeviceList(bool flag, void* instance) {
  if (!onTestThread()) {
    ++listings;
    // While the instance could not be made, the monitor has none to pass.
    if (flag || instanceName(instance) == "stray") std::abort();
  }
  play("getConnectedDeviceList", arg("flag", flag), instanceName(instance));
  std::vector<std::string> names;
  const std::shared_lock lock(scriptMutex);
  for (const Device& device : script.devices) names.push_back(listedName(device));
  return names;
}

TokenInfo tavrin_getTokenInfo(const char* name, void* instance) {
  play("getTokenInfo", name, instanceName(instance));
  const std::shared_lock lock(scriptMutex);
  for (const Device& device : script.devices) {
    if (listedName(device) == name) return device.info;
  }
  return {};
}

int tavrin_initDevice(const char* device, bool flag, void* instance) {
  if (const int status = play("initDevice", device, arg("flag", flag), instanceName(instance))) return status;
  const Editor locked;
  find(device).initialized = true;
  return 0;
}

int tavrin_validatePassword(const char* device, const char* password, int kind, int* retryCounter, void* instance) {
  const int status = play("validatePassword", device, arg("pin", password), arg("kind", kind),
                          arg("counter", *retryCounter), instanceName(instance));
  const std::shared_lock lock(scriptMutex);
  *retryCounter = script.counter;
  return status;
}

bool tavrin_changeUserPassword(const char* device, const char* oldPassword, const char* newPassword,
                               int* failureCounter, bool flag1, bool flag2, void* instance) {
  const int status =
      play("changeUserPassword", device, arg("old", oldPassword), arg("new", newPassword),
           arg("counter", *failureCounter), arg("flag", flag1), arg("flag", flag2), instanceName(instance));
  const std::shared_lock lock(scriptMutex);
  *failureCounter = script.counter;
  return status == 0;
}

const std::vector<TavrinKeyPair>& tavrin_getKeyPairList(const char* device, void* instance) {
  play("getKeyPairList", device, instanceName(instance));
  return mine().keyPairs = listOf(device, &Device::keyPairs);
}

const std::vector<TavrinCertificate>& tavrin_getCertificateList(const char* device, void* instance) {
  play("getCertificateList", device, instanceName(instance));
  return mine().certificates = listOf(device, &Device::certificates);
}

int tavrin_generateKeyPair(const char* device, const char* password, TavrinKeyPair* keyPair, void* instance) {
  const int status = play("generateKeyPair", device, arg("pin", password), arg("type", keyPair->keyType),
                          arg("usage", keyPair->usage), arg("label", static_cast<const char*>(keyPair->label)),
                          arg("id", keyPair->keyId, keyPair->keyIdLength), instanceName(instance));
  if (status != 0) return status;
  const Editor locked;
  keyPair->id = script.nextId++;
  find(device).keyPairs.push_back(*keyPair);
  return 0;
}

int tavrin_deleteKeyPair(const char* device, const std::uint8_t* recordId, const char* password, bool flag,
                         void* instance) {
  const int status =
      play("deleteKeyPair", device, record(recordId), arg("pin", password), arg("flag", flag), instanceName(instance));
  return status != 0 ? status : erase(&Device::keyPairs, device, recordId);
}

int tavrin_updateKeyPairDetails(const char* device, const std::uint8_t* recordId, const char* password,
                                const char* label, const std::uint8_t* keyId, int keyIdLength, void* instance) {
  return play("updateKeyPairDetails", device, record(recordId), arg("pin", password), arg("label", label),
              arg("id", keyId, keyIdLength), instanceName(instance));
}

int tavrin_importCertificate(const char* device, const char* password, TavrinCertificate* certificate, void* instance) {
  const int status = play("importCertificate", device, arg("pin", password), arg("number", certificate->id),
                          record(certificate->recordId), arg("label", static_cast<const char*>(certificate->label)),
                          arg("id", certificate->certId, certificate->certIdLength),
                          show(certificate->certificate, certificate->certificateLength), instanceName(instance));
  if (status != 0) return status;
  const Editor locked;
  Device& found = find(device);
  fill(certificate->recordId, "crt-" + std::to_string(script.nextId));
  found.certificates.push_back(*certificate);
  found.certificates.back().id = script.nextId++;
  return 0;
}

int tavrin_deleteCertificate(const char* device, const std::uint8_t* recordId, const char* password, void* instance) {
  const int status = play("deleteCertificate", device, record(recordId), arg("pin", password), instanceName(instance));
  return status != 0 ? status : erase(&Device::certificates, device, recordId);
}

int tavrin_importPfx(const char* device, const char* password, ImportPFXDetails* details, void* instance) {
  const int status = play("importPfx", device, arg("pin", password), arg("label", details->label.c_str()),
                          arg("type", details->keyType), arg("value", details->value), arg("n", details->modulus),
                          arg("e", details->publicExponent), arg("d", details->privateExponent),
                          arg("p", details->prime1), arg("q", details->prime2), arg("dp", details->exponent1),
                          arg("dq", details->exponent2), arg("qi", details->coefficient), instanceName(instance));
  if (status != 0) return status;
  const Editor locked;
  const std::uint32_t number = script.nextId++;
  fill(details->recordId, "key-" + std::to_string(number));
  if (mine().struck.kind != Fault::Kind::nothing) {
    find(device).keyPairs.push_back(fake::keyPair(number, 2, "imported", details->label));
  }
  return 0;
}

int tavrin_getCertificateDetails(const std::uint8_t* der, int length, CertificateDetails* details, void* instance) {
  if (const int status = play("getCertificateDetails", show(der, length), instanceName(instance))) return status;
  const auto parts = partsOf(der, length);
  if (parts.empty()) return 5;
  details->subjectName = parts[0];
  details->issuerName = parts[1];
  return 0;
}

Bytes tavrin_getCertificateSubject(const std::uint8_t* der, int length, void* instance) {
  return partOf("getCertificateSubject", 0, der, length, instance);
}

Bytes tavrin_getCertificateIssuer(const std::uint8_t* der, int length, void* instance) {
  return partOf("getCertificateIssuer", 1, der, length, instance);
}

Bytes tavrin_getCertificateSerialDER(const std::uint8_t* der, int length, void* instance) {
  return partOf("getCertificateSerialDER", 2, der, length, instance);
}

std::vector<std::pair<std::string, Bytes>> tavrin_getFilesWithExtensionsAndConvertDER(
    const std::string& folder, const std::vector<std::string>& extensions, void* instance) {
  std::string list;
  for (const std::string& extension : extensions) list += extension;
  play("getFilesWithExtensionsAndConvertDER", folder, list, instanceName(instance));
  const std::shared_lock lock(scriptMutex);
  return script.files;
}

int tavrin_initHash(const char* device, int hashCode, void** context, void* instance) {
  if (const int status = play("initHash", device, arg("code", hashCode), instanceName(instance))) return status;
  auto& hashes = mine().hashes;
  hashes.push_back(std::make_unique<Hash>(Hash{static_cast<int>(hashes.size()) + 1, hashCode, ""}));
  *context = hashes.back().get();
  return 0;
}

int tavrin_updateHash(void* context, const std::uint8_t* data, int length, void* instance) {
  const int status = play("updateHash", contextName(context), show(data, length), instanceName(instance));
  if (status != 0 || !context) return status != 0 ? status : 9;
  static_cast<Hash*>(context)->data += string(data, length);
  return 0;
}

int tavrin_finalHash(void* context, std::uint8_t* digest, int* length, void* instance) {
  const int status = play("finalHash", contextName(context), arg("room", *length), instanceName(instance));
  if (status != 0 || !context) return status != 0 ? status : 9;
  const auto* hash = static_cast<const Hash*>(context);
  const std::string result = ("H" + std::to_string(hash->code) + "(" + hash->data + ")").substr(0, 64);
  constexpr std::size_t lengths[] = {20, 32, 48, 64};  // of the codes 2 to 5
  return deliver(result, lengths[(hash->code - 2) & 3], digest, length);
}

int tavrin_signHash(const char* device, const std::uint8_t* recordId, const char* password, const std::uint8_t* input,
                    int inputLength, std::uint8_t* signature, int* signatureLength, bool flag, void* instance,
                    bool pss) {
  const int status = play("signHash", device, record(recordId), arg("pin", password), arg("input", input, inputLength),
                          arg("room", *signatureLength), arg("flag", flag), instanceName(instance), arg("pss", pss));
  if (status != 0) return status;
  std::size_t length = 256;
  for (const TavrinKeyPair& key : listOf(device, &Device::keyPairs)) {
    if (record(key.recordId) == record(recordId) && key.keyType >= 5) length = key.publicKeyLength - 1;
  }
  return deliver("S(" + string(input, inputLength) + ")", length, signature, signatureLength);
}

int tavrin_verifySignatureHash(std::uint32_t keyType, const char* device, const std::uint8_t* input, int inputLength,
                               const std::uint8_t* publicKey, int publicKeyLength, const std::uint8_t* signature,
                               int signatureLength, void* instance, bool pss) {
  return play("verifySignatureHash", arg("type", keyType), device, arg("input", input, inputLength),
              arg("key", publicKey, publicKeyLength), arg("signature", signature, signatureLength),
              instanceName(instance), arg("pss", pss));
}

int tavrin_encrypt(EncryptionType type, PaddingMode padding, const std::uint8_t* data, int dataLength,
                   std::uint8_t* ciphertext, int* ciphertextLength, const std::uint8_t* publicKey, int publicKeyLength,
                   void* instance) {
  if (const int status = play("encrypt", arg("type", static_cast<int>(type)), arg("padding", static_cast<int>(padding)),
                              arg("data", data, dataLength), arg("room", *ciphertextLength),
                              arg("key", publicKey, publicKeyLength), instanceName(instance)))
    return status;
  return deliver("E(" + string(data, dataLength) + ")", 256, ciphertext, ciphertextLength);
}

int tavrin_decrypt(const char* device, const std::uint8_t* recordId, const char* password,
                   const std::uint8_t* ciphertext, int ciphertextLength, std::uint8_t** plaintext, int* plaintextLength,
                   bool flag, void* instance) {
  if (const int status = play("decrypt", device, record(recordId), arg("pin", password),
                              arg("data", ciphertext, ciphertextLength), arg("flag", flag), instanceName(instance)))
    return status;
  return lend("P(" + string(ciphertext, ciphertextLength) + ")", 100, plaintext, plaintextLength);
}

int tavrin_ecdhDerive(const char* device, const std::uint8_t* recordId, const char* password,
                      const std::uint8_t* peerPoint, int peerPointLength, std::uint8_t** secret, int* secretLength,
                      void* instance) {
  if (const int status = play("ecdhDerive", device, record(recordId), arg("pin", password),
                              arg("peer", peerPoint, peerPointLength), instanceName(instance)))
    return status;
  return lend("Z(" + string(peerPoint, peerPointLength) + ")", 32, secret, secretLength);
}

int tavrin_generateRamdomNumber(const char* device, int count, std::uint8_t* out, bool flag, void* instance) {
  const int status =
      play("generateRamdomNumber", device, arg("count", count), arg("flag", flag), instanceName(instance));
  for (int i = 0; status == 0 && i < count; ++i) out[i] = static_cast<std::uint8_t>('a' + i % 26);
  return status;
}
