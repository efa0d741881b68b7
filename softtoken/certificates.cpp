#include "softtoken/certificates.h"

#include <ksba.h>

#include <algorithm>
#include <memory>

#include "softtoken/crypto_library.h"
#include "softtoken/der.h"
#include "softtoken/text.h"

namespace softtoken {
namespace {

constexpr std::size_t maxFile = std::size_t{1} << 20;

using Certificate = std::unique_ptr<ksba_cert_s, ReleaseWith<ksba_cert_release>>;
using KsbaText = std::unique_ptr<char, ReleaseWith<ksba_free>>;

void checkParsing(gpg_error_t error) {
  if (gpg_err_code(error) == GPG_ERR_ENOMEM) throw std::bad_alloc();
  require(!error, "this is no certificate");
}

Certificate openCertificate(ByteView der) {
  ksba_cert_t made = nullptr;
  checkParsing(ksba_cert_new(&made));
  Certificate certificate(made);
  checkParsing(ksba_cert_init_from_mem(made, der.data(), der.size()));
  return certificate;
}

std::string takeText(char* text) {
  const KsbaText owner(text);
  return text ? text : "";
}

// Reads the first fields of the signed part: version, serial number, algorithm, issuer, validity, subject.
void readElements(ByteView der, CertificateFields& fields) {
  const auto whole = takeElement(der, tag::sequence);
  require(whole && der.empty(), "this is no certificate");
  ByteView parts = whole->content;
  const auto toBeSigned = takeElement(parts, tag::sequence);
  require(toBeSigned.has_value(), "this is no certificate");
  ByteView rest = toBeSigned->content;
  takeElement(rest, tag::explicitZero);
  const auto serial = takeElement(rest, tag::integer);
  const auto algorithm = takeElement(rest, tag::sequence);
  const auto issuer = takeElement(rest, tag::sequence);
  const auto validity = takeElement(rest, tag::sequence);
  const auto subject = takeElement(rest, tag::sequence);
  require(serial && algorithm && issuer && validity && subject, "this is no certificate");
  fields.serial = serial->whole;
  fields.issuer = issuer->whole;
  fields.subject = subject->whole;
}

// The decoded content of the first PEM block; empty when there is none.
Bytes decodePem(ByteView content) {
  const std::unique_ptr<_gpgrt_b64state, ReleaseWith<gpgrt_b64dec_finish>> decoder(gpgrt_b64dec_start("CERTIFICATE"));
  if (!decoder) throw std::bad_alloc();
  Bytes decoded(content.begin(), content.end());
  std::size_t length = 0;
  const gpg_error_t error = gpgrt_b64dec_proc(decoder.get(), decoded.data(), decoded.size(), &length);
  decoded.resize(error && gpg_err_code(error) != GPG_ERR_EOF ? 0 : length);
  return decoded;
}

bool hasExtension(const std::string& name, const std::vector<std::string>& extensions) {
  return std::ranges::any_of(extensions, [&](const std::string& extension) {
    return name.size() >= extension.size() &&
           std::ranges::equal(std::string_view(name).substr(name.size() - extension.size()), extension, {}, lower,
                              lower);
  });
}

}  // namespace

CertificateFields parseCertificate(ByteView der) {
  // For malformed DER libksba writes to the standard error, which belongs to the application, and leaks memory.
  require(isWellFormed(der), "this is no certificate");
  CertificateFields fields;
  readElements(der, fields);
  const Certificate certificate = openCertificate(der);
  fields.subjectText = takeText(ksba_cert_get_subject(certificate.get(), 0));
  fields.issuerText = takeText(ksba_cert_get_issuer(certificate.get(), 0));
  return fields;
}

std::optional<Bytes> certificateInFile(ByteView content) {
  Bytes decoded;
  if (content.empty() || content[0] != tag::sequence) {
    decoded = decodePem(content);
    content = decoded;
  }
  const auto certificate = takeElement(content, tag::sequence);
  if (!certificate) return std::nullopt;
  return Bytes(certificate->whole.begin(), certificate->whole.end());
}

std::vector<std::pair<std::string, Bytes>> certificatesInFolder(const std::string& folder,
                                                                const std::vector<std::string>& extensions) {
  namespace fs = std::filesystem;
  std::vector<std::pair<std::string, Bytes>> found;
  std::error_code error;
  for (fs::directory_iterator entry(pathOf(folder), error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = nameOf(*entry);
    if (!hasExtension(name, extensions)) continue;
    const auto content = readFile(entry->path(), maxFile);
    if (!content) continue;
    if (auto certificate = certificateInFile(*content)) found.emplace_back(name, std::move(*certificate));
  }
  std::ranges::sort(found, {}, &std::pair<std::string, Bytes>::first);
  return found;
}

}  // namespace softtoken
