#include "softtoken/token_state.h"

#include <algorithm>

#include "softtoken/key_material.h"
#include "softtoken/record_io.h"

namespace softtoken {
namespace {

// The first line of a file tells its kind and version.
constexpr std::string_view stateHeader = "Tavrin soft token 1\n";
constexpr std::string_view triesHeader = "Tavrin soft token tries 1\n";

constexpr std::size_t longestText = 256;
constexpr std::size_t longestSealedKey = 4096;

// Bounds for what a file may make us compute.
constexpr std::uint32_t leastCost = 1u << 10;
constexpr std::uint32_t mostCost = 1u << 20;
constexpr std::uint32_t mostParallelism = 16;

// Ends the file with the hash of what is before it, so that bytes which a disk has lost are noticed.
Bytes finishFile(Writer<> writer) {
  writer.raw(hashOf(GCRY_MD_SHA256, writer.content()));
  return std::move(writer).take();
}

[[noreturn]] void failDamaged() { throw Failure(Status::deviceFault, "a file of the token is damaged"); }

ByteView openFile(ByteView file, std::string_view header) {
  constexpr std::size_t hashSize = 32;
  if (file.size() < header.size() + hashSize) failDamaged();
  const ByteView content = file.first(file.size() - hashSize);
  if (!std::ranges::equal(content.first(header.size()), viewOf(header)) ||
      !std::ranges::equal(hashOf(GCRY_MD_SHA256, content), file.last(hashSize)))
    failDamaged();
  return content.subspan(header.size());
}

template <std::size_t size>
std::string_view textIn(const char (&field)[size]) {
  return {field, static_cast<std::size_t>(std::find(field, field + size, '\0') - field)};
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
  lock.cost.cost = reader.number(leastCost, mostCost);
  lock.cost.parallelism = reader.number(1, mostParallelism);
  lock.salt = reader.bytes(saltSize);
  lock.sealedMasterKey = reader.bytes(secretKeySize + sealOverhead);
  if ((lock.cost.cost & (lock.cost.cost - 1)) != 0) failDamaged();
  return lock;
}

void writeKeyPair(Writer<>& writer, const TavrinKeyPair& pair, const Bytes& privateKey) {
  writer.number(pair.id);
  writer.raw(pair.recordId);
  writer.field(ByteView(pair.publicKey).first(pair.publicKeyLength));
  writer.field(ByteView(pair.keyId).first(pair.keyIdLength));
  writer.field(textIn(pair.label));
  writer.number(pair.usage);
  writer.number(pair.keyType);
  writer.field(privateKey);
}

TavrinKeyPair readKeyPair(Reader& reader) {
  TavrinKeyPair pair{};
  pair.id = reader.number(1, largestId);
  std::ranges::copy(reader.raw(sizeof pair.recordId), pair.recordId);
  pair.publicKeyLength = readInto(pair.publicKey, reader);
  pair.keyIdLength = readInto(pair.keyId, reader);
  readTextInto(pair.label, reader);
  pair.usage = reader.number();
  pair.keyType = reader.number();
  if (!isKnownKeyType(pair.keyType)) failDamaged();
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

Bytes encodeTokenState(const TokenState& state) {
  Writer<> writer;
  writer.raw(viewOf(stateHeader));
  for (const std::string* text : {&state.serial, &state.label, &state.firmware}) writer.field(*text);
  for (const std::uint32_t value : {state.capacity, state.lastKeyPairId, state.lastCertificateId}) writer.number(value);
  writeLock(writer, state.user);
  writeLock(writer, state.securityOfficer);
  writer.number(static_cast<std::uint32_t>(state.keyPairs.size()));
  for (std::size_t i = 0; i < state.keyPairs.size(); ++i) writeKeyPair(writer, state.keyPairs[i], state.privateKeys[i]);
  writer.number(static_cast<std::uint32_t>(state.certificates.size()));
  for (const TavrinCertificate& certificate : state.certificates) writeCertificate(writer, certificate);
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
  Reader reader(openFile(file, stateHeader));
  TokenState state;
  for (std::string* text : {&state.serial, &state.label, &state.firmware}) *text = reader.text(longestText);
  state.capacity = reader.number(0, largestId);
  state.lastKeyPairId = reader.number(0, largestId);
  state.lastCertificateId = reader.number(0, largestId);
  state.user = readLock(reader);
  state.securityOfficer = readLock(reader);
  for (std::uint32_t left = reader.number(0, largestId); left > 0; --left) {
    state.keyPairs.push_back(readKeyPair(reader));
    state.privateKeys.push_back(reader.bytes(longestSealedKey));
  }
  for (std::uint32_t left = reader.number(0, largestId); left > 0; --left)
    state.certificates.push_back(readCertificate(reader));
  reader.end();
  if (state.serial.empty()) failDamaged();
  return state;
}

Tries decodeTries(ByteView file) {
  Reader reader(openFile(file, triesHeader));
  Tries tries;
  tries.user = reader.number(0, mostTries);
  tries.securityOfficer = reader.number(0, mostTries);
  reader.end();
  return tries;
}

}  // namespace softtoken
