#include "softtoken/token_objects.h"

#include <algorithm>

namespace softtoken {
namespace {

constexpr std::size_t recordIdSize = sizeof(TavrinKeyPair::recordId);

template <class Record>
std::size_t indexOf(const std::vector<Record>& records, const std::uint8_t* recordId, const char* text) {
  const auto found = std::ranges::find_if(
      records, [&](const Record& record) { return std::equal(recordId, recordId + recordIdSize, record.recordId); });
  if (found == records.end()) throw Failure(Status::notFound, text);
  return static_cast<std::size_t>(found - records.begin());
}

// A number is not used again while a higher one is free, so that an old object handle does not match a new object.
template <class Record>
std::uint32_t nextId(const std::vector<Record>& records, std::uint32_t& last) {
  if (last < largestId) return ++last;
  std::vector<bool> taken(largestId + 1);
  for (const Record& record : records) taken[record.id] = true;
  const auto free = std::find(taken.begin() + 1, taken.end(), false);
  if (free == taken.end()) throw Failure(Status::full, "all object numbers are taken");
  return static_cast<std::uint32_t>(free - taken.begin());
}

ByteView contentOf(const TavrinCertificate& certificate) {
  return ByteView(certificate.certificate).first(certificate.certificateLength);
}

bool continuesCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

template <class Container>
void eraseAt(Container& container, std::size_t index) {
  container.erase(container.begin() + static_cast<std::ptrdiff_t>(index));
}

}  // namespace

std::size_t indexOfKeyPair(const TokenState& state, const std::uint8_t* recordId) {
  return indexOf(state.keyPairs, recordId, "there is no such key pair");
}

std::size_t indexOfCertificate(const TokenState& state, const std::uint8_t* recordId) {
  return indexOf(state.certificates, recordId, "there is no such certificate");
}

void requireRoom(const TokenState& state) {
  if (state.objectCount() >= state.capacity) throw Failure(Status::full, "the token is full");
}

void addKeyPair(TokenState& state, TavrinKeyPair& pair, Bytes privateKey) {
  requireRoom(state);
  pair.id = nextId(state.keyPairs, state.lastKeyPairId);
  state.keyPairs.push_back({pair, std::move(privateKey)});
}

void addCertificate(TokenState& state, TavrinCertificate& certificate) {
  const auto same = std::ranges::find_if(state.certificates, [&](const TavrinCertificate& other) {
    return std::ranges::equal(contentOf(other), contentOf(certificate));
  });
  if (same != state.certificates.end()) {
    if (certificate.label[0] != '\0') std::ranges::copy(certificate.label, same->label);
    if (certificate.certIdLength > 0) {
      std::ranges::copy(certificate.certId, same->certId);
      same->certIdLength = certificate.certIdLength;
    }
    certificate = *same;
    return;
  }
  requireRoom(state);
  certificate.id = nextId(state.certificates, state.lastCertificateId);
  state.certificates.push_back(certificate);
}

void removeKeyPair(TokenState& state, const std::uint8_t* recordId) {
  eraseAt(state.keyPairs, indexOfKeyPair(state, recordId));
}

void removeCertificate(TokenState& state, const std::uint8_t* recordId) {
  eraseAt(state.certificates, indexOfCertificate(state, recordId));
}

void setLabel(std::span<char> field, std::string_view text) {
  std::size_t length = std::min(text.size(), field.size() - 1);
  while (length > 0 && length < text.size() && continuesCharacter(text[length])) --length;
  std::ranges::fill(field, '\0');
  std::ranges::copy(text.substr(0, length), field.begin());
}

}  // namespace softtoken
