#include "objects/ca_chain.h"

#include <algorithm>
#include <map>

#include "devlib/device_constants.h"
#include "log/log.h"
#include "objects/ca_installation.h"
#include "platform/platform.h"

namespace tavrin {
namespace {

std::string programFolder() {
  const std::string path = platform::programPath();
  const auto end = path.find_last_of("\\/");
  return end == std::string::npos ? std::string() : path.substr(0, end);
}

// The CA certificates by common name. If two files have the same common name, the certificate is taken from the first
// and the issuer's name from the last. Existing installations depend on this.
struct CaTable {
  std::map<std::string, TavrinCertificate> certificates;
  std::map<std::string, std::string> issuers;
};

// Leaves out files that are no certificates or do not fit into a record.
CaTable readCaFiles(const std::vector<std::pair<std::string, std::vector<std::uint8_t>>>& files) {
  CaTable table;
  for (const auto& [fileName, der] : files) {
    if (der.empty() || der.size() > sizeof TavrinCertificate::certificate) continue;
    CertificateDetails details{};
    if (tavrin_getCertificateDetails(der.data(), static_cast<int>(der.size()), &details, nullptr) != 0) continue;
    const std::string key = extractCommonName(details.subjectName);
    table.certificates.emplace(key, certificateRecord(key, {}, der));
    table.issuers.insert_or_assign(key, extractCommonName(details.issuerName));
  }
  return table;
}

}  // namespace

TavrinCertificate certificateRecord(std::string_view label, ByteView id, ByteView der) {
  TavrinCertificate record{};
  std::copy_n(label.begin(), std::min(label.size(), maximumLabelLength), record.label);
  record.certIdLength = copyToField(record.certId, id);
  record.certificateLength = copyToField(record.certificate, der);
  return record;
}

std::vector<TavrinCertificate> findChain(const TavrinCertificate& certificate, const std::string& issuerName) {
  if (platform::environmentVariable("TAVRIN_HOME").empty()) {
    logDebug("TAVRIN_HOME not set \xE2\x80\x94 Using Windows defaults");
  }
  const std::string folder = caFolder(programFolder());
  logDebug("CA Folder: ", folder);
  const auto files = tavrin_getFilesWithExtensionsAndConvertDER(folder, caFileExtensions(), nullptr);
  if (files.empty()) return {};
  const CaTable table = readCaFiles(files);
  const IssuerChain issuers = followIssuers(table.issuers, extractCommonName(issuerName));
  if (!issuers.missing.empty()) {
    logDebug("Issuer '", issuers.missing, "' NOT found \xE2\x80\x94 skipping chain import");
    return {};
  }
  std::vector<TavrinCertificate> chain;
  for (auto issuer = issuers.issuers.rbegin(); issuer != issuers.issuers.rend(); ++issuer) {
    chain.push_back(table.certificates.at(*issuer));
  }
  chain.push_back(certificate);
  return chain;
}

}  // namespace tavrin
