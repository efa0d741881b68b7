#include "softtoken/token_state.h"

#include <algorithm>

#include "devlib/device_constants.h"
#include "softtoken/record_io.h"
#include "softtoken/text.h"

namespace softtoken {
namespace {

// The first line of a file is its kind and version. A token file of version 1 has no proof; version 2 is written.
constexpr std::string_view firstStateHeader = "Tavrin soft token 1\n";
constexpr std::string_view stateHeader = "Tavrin soft token 2\n";
constexpr std::string_view triesHeader = "Tavrin soft token tries 1\n";

constexpr std::size_t longestText = 256;
constexpr std::size_t longestSealedKey = 4096;

// Bounds for the work that a file can cause: 64 MiB of memory, and less than a second on a processor of 2020.
constexpr std::uint32_t minCost = 1u << 10;
constexpr std::uint32_t maxCost = 1u << 16;
constexpr std::uint32_t maxTotalCost = 1u << 17;  // cost times parallelism

// Appends the hash of the content, which detects bytes that a disk has lost.
Bytes finishFile(Writer<> writer) {
  writer.raw(hashOf(GCRY_MD_SHA256, writer.content()));
  return std::move(writer).take();
}

[[noreturn]] void failDamaged() { throw Failure(Status::deviceFault, "a file of the token is damaged"); }

Digest256 sha256(ByteView content) {
  Digest256 digest{};
  std::ranges::copy(hashOf(GCRY_MD_SHA256, content), digest.begin());
  return digest;
}

Digest256 macOf(const Digest256& contentHash, ByteView masterKey) {
  const Digest256 key = hmacSha256(masterKey, {viewOf("token file")});
  return hmacSha256(key, {contentHash});
}

// The file without its hash.
ByteView contentOf(ByteView file) {
  if (file.size() < sizeof(Digest256)) failDamaged();
  const ByteView content = file.first(file.size() - sizeof(Digest256));
  if (!std::ranges::equal(sha256(content), file.last(sizeof(Digest256)))) failDamaged();
  return content;
}

bool startsWith(ByteView content, std::string_view header) {
  return content.size() >= header.size() && std::ranges::equal(content.first(header.size()), viewOf(header));
}

// Removes the proof from the end of the content, which keeps its header.
FileProof takeProof(ByteView& content) {
  FileProof proof{};
  if (content.size() < stateHeader.size() + sizeof proof.mac) failDamaged();
  std::ranges::copy(content.last(sizeof proof.mac), proof.mac.begin());
  content = content.first(content.size() - sizeof proof.mac);
  proof.contentHash = sha256(content);
  return proof;
}

template <std::size_t size>
std::uint32_t readInto(std::uint8_t (&field)[size], Reader& reader) {
  const ByteView bytes = reader.field(size);
  std::ranges::copy(bytes, field);
  return static_cast<std::uint32_t>(bytes.size());
}

template <std::size_t size>
void readTextInto(char (&field)[size], Reader& reader) {
  const std::string text = reader.text(size - 1);
  std::ranges::copy(text, field);
}

void writeLock(Writer<>& writer, const PasswordLock& lock) {
  writer.number(lock.cost.cost);
  writer.number(lock.cost.parallelism);
  writer.field(lock.salt);
  writer.field(lock.sealedMasterKey);
}

PasswordLock readLock(Reader& reader) {
  PasswordLock lock;
  lock.cost.cost = reader.number(minCost, maxCost);
  lock.cost.parallelism = reader.number(1, maxTotalCost / lock.cost.cost);
  lock.salt = reader.bytes(saltSize);
  lock.sealedMasterKey = reader.bytes(secretKeySize + sealOverhead);
  if ((lock.cost.cost & (lock.cost.cost - 1)) != 0) failDamaged();
  return lock;
}

void writeKeyPair(Writer<>& writer, const StoredKeyPair& pair) {
  writer.number(pair.id);
  writer.raw(pair.recordId);
  writer.field(ByteView(pair.publicKey).first(pair.publicKeyLength));
  writer.field(ByteView(pair.keyId).first(pair.keyIdLength));
  writer.field(textIn(pair.label));
  writer.number(pair.usage);
  writer.number(pair.keyType);
  writer.field(pair.sealedPrivateKey);
}

StoredKeyPair readKeyPair(Reader& reader) {
  StoredKeyPair pair{};
  pair.id = reader.number(1, largestId);
  std::ranges::copy(reader.raw(sizeof pair.recordId), pair.recordId);
  pair.publicKeyLength = readInto(pair.publicKey, reader);
  pair.keyIdLength = readInto(pair.keyId, reader);
  readTextInto(pair.label, reader);
  pair.usage = reader.number();
  pair.keyType = reader.number();
  if (!tavrin::findKeyType(pair.keyType)) failDamaged();
  pair.sealedPrivateKey = reader.bytes(longestSealedKey);
  return pair;
}

void writeCertificate(Writer<>& writer, const TavrinCertificate& certificate) {
  writer.number(certificate.id);
  writer.raw(certificate.recordId);
  writer.field(ByteView(certificate.certificate).first(certificate.certificateLength));
  writer.field(ByteView(certificate.certId).first(certificate.certIdLength));
  writer.field(textIn(certificate.label));
}

TavrinCertificate readCertificate(Reader& reader) {
  TavrinCertificate certificate{};
  certificate.id = reader.number(1, largestId);
  std::ranges::copy(reader.raw(sizeof certificate.recordId), certificate.recordId);
  certificate.certificateLength = readInto(certificate.certificate, reader);
  certificate.certIdLength = readInto(certificate.certId, reader);
  readTextInto(certificate.label, reader);
  return certificate;
}

}  // namespace

Bytes encodeTokenState(const TokenState& state, ByteView masterKey) {
  Writer<> writer;
  writer.raw(viewOf(stateHeader));
  for (const std::string* text : {&state.serial, &state.label, &state.firmware}) writer.field(*text);
  for (const std::uint32_t value : {state.capacity, state.lastKeyPairId, state.lastCertificateId}) writer.number(value);
  writeLock(writer, state.user);
  writeLock(writer, state.securityOfficer);
  writer.number(static_cast<std::uint32_t>(state.keyPairs.size()));
  for (const StoredKeyPair& pair : state.keyPairs) writeKeyPair(writer, pair);
  writer.number(static_cast<std::uint32_t>(state.certificates.size()));
  for (const TavrinCertificate& certificate : state.certificates) writeCertificate(writer, certificate);
  writer.raw(macOf(sha256(writer.content()), masterKey));
  return finishFile(std::move(writer));
}

Bytes encodeTries(const Tries& tries) {
  Writer<> writer;
  writer.raw(viewOf(triesHeader));
  writer.number(tries.user);
  writer.number(tries.securityOfficer);
  return finishFile(std::move(writer));
}

TokenState decodeTokenState(ByteView file) {
  ByteView content = contentOf(file);
  TokenState state;
  if (startsWith(content, stateHeader)) {
    state.proof = takeProof(content);
  } else if (!startsWith(content, firstStateHeader)) {
    failDamaged();
  }
  static_assert(stateHeader.size() == firstStateHeader.size());
  Reader reader(content.subspan(stateHeader.size()));
  for (std::string* text : {&state.serial, &state.label, &state.firmware}) *text = reader.text(longestText);
  state.capacity = reader.number(0, largestId);
  state.lastKeyPairId = reader.number(0, largestId);
  state.lastCertificateId = reader.number(0, largestId);
  state.user = readLock(reader);
  state.securityOfficer = readLock(reader);
  for (std::uint32_t left = reader.number(0, largestId); left > 0; --left)
    state.keyPairs.push_back(readKeyPair(reader));
  for (std::uint32_t left = reader.number(0, largestId); left > 0; --left)
    state.certificates.push_back(readCertificate(reader));
  reader.end();
  if (state.serial.empty()) failDamaged();
  return state;
}

bool isAuthentic(const TokenState& state, ByteView masterKey) {
  return state.proof && equalInConstantTime(state.proof->mac, macOf(state.proof->contentHash, masterKey));
}

Tries decodeTries(ByteView file) {
  const ByteView content = contentOf(file);
  if (!startsWith(content, triesHeader)) failDamaged();
  Reader reader(content.subspan(triesHeader.size()));
  Tries tries;
  tries.user = reader.number(0, maxTries);
  tries.securityOfficer = reader.number(0, maxTries);
  reader.end();
  return tries;
}

}  // namespace softtoken
