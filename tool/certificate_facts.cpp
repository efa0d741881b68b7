#include "tool/certificate_facts.h"

#include <ksba.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <memory>

#include "softtoken/certificates.h"
#include "softtoken/crypto_library.h"
#include "softtoken/der.h"
#include "softtoken/failure.h"

namespace tool {
namespace {

using softtoken::ByteView;
using std::chrono::days;
using std::chrono::sys_seconds;

int numberIn(std::string_view text, std::size_t start, std::size_t length) {
  int number = 0;
  const char* first = text.data() + start;
  std::from_chars(first, first + length, number);
  return number;
}

// libksba writes times as 20261121T235959, always in UTC.
std::optional<sys_seconds> timeIn(std::string_view text) {
  using namespace std::chrono;
  if (text.size() < 15) return std::nullopt;
  const year_month_day date{year(numberIn(text, 0, 4)), month(static_cast<unsigned>(numberIn(text, 4, 2))),
                            day(static_cast<unsigned>(numberIn(text, 6, 2)))};
  if (!date.ok()) return std::nullopt;
  return sys_days(date) + hours(numberIn(text, 9, 2)) + minutes(numberIn(text, 11, 2)) + seconds(numberIn(text, 13, 2));
}

std::string dateIn(std::string_view text) {
  return std::string(text.substr(0, 4)) + "-" + std::string(text.substr(4, 2)) + "-" + std::string(text.substr(6, 2));
}

Validity validityNow(sys_seconds start, sys_seconds end, sys_seconds now) {
  if (now > end) return Validity::expired;
  if (now < start) return Validity::notYet;
  return end - now < days(warningDays) ? Validity::expiresSoon : Validity::valid;
}

void readValidity(ByteView der, CertificateFacts& facts) {
  ksba_cert_t made = nullptr;
  if (ksba_cert_new(&made)) throw std::bad_alloc();
  const std::unique_ptr<ksba_cert_s, softtoken::ReleaseWith<ksba_cert_release>> certificate(made);
  ksba_isotime_t notBefore;
  ksba_isotime_t notAfter;
  if (ksba_cert_init_from_mem(made, der.data(), der.size()) || ksba_cert_get_validity(made, 0, notBefore) ||
      ksba_cert_get_validity(made, 1, notAfter))
    return;
  const auto start = timeIn(notBefore);
  const auto end = timeIn(notAfter);
  if (!start || !end) return;
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  facts.notBefore = dateIn(notBefore);
  facts.notAfter = dateIn(notAfter);
  facts.daysLeft = std::chrono::duration_cast<days>(*end - now).count();
  facts.validity = validityNow(*start, *end, now);
}

// The public key is the element that follows the subject's name.
softtoken::Bytes publicKeyAfter(ByteView subject, ByteView der) {
  ByteView rest = der.subspan(static_cast<std::size_t>(subject.data() - der.data()) + subject.size());
  const auto key = softtoken::takeElement(rest, softtoken::tag::sequence);
  return key ? softtoken::Bytes(key->whole.begin(), key->whole.end()) : softtoken::Bytes();
}

}  // namespace

std::optional<CertificateFacts> readFacts(ByteView der) try {
  const softtoken::CertificateFields fields = softtoken::parseCertificate(der);
  CertificateFacts facts;
  facts.subject = fields.subjectText;
  facts.issuer = fields.issuerText;
  facts.publicKeyInfo = publicKeyAfter(fields.subject, der);
  readValidity(der, facts);
  return facts;
} catch (const softtoken::Failure&) {
  return std::nullopt;
}

bool holdsKey(const CertificateFacts& facts, ByteView publicKey) {
  // No other part of it is as long as a modulus or a point, so it is enough to find the bytes.
  const softtoken::Bytes& info = facts.publicKeyInfo;
  return !publicKey.empty() && std::search(info.begin(), info.end(), publicKey.begin(), publicKey.end()) != info.end();
}

}  // namespace tool
