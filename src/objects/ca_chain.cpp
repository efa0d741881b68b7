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

std::string baseFolder() {
  std::string home = platform::environmentVariable("TAVRIN_HOME");
  if (!home.empty()) return home;
  logDebug("TAVRIN_HOME not set \xE2\x80\x94 Using Windows defaults");
  for (const char* folder : installFolders) {
    if (platform::isFolder(folder)) return folder;
  }
  return programFolder();
}

// The CA certificates by common name. Of two files with one name, the first gives the certificate and the last the
// names: both have been so from the start, and installations rely on the file order that this gives.
struct CaTable {
  struct Names {
    std::string subject;
    std::string issuer;
  };
  std::map<std::string, TavrinCertificate> certificates;
  std::map<std::string, Names> names;
};

// Files that cannot be read as a certificate, or do not fit into a record, are left out without a word.
CaTable readCaFiles(const std::vector<std::pair<std::string, std::vector<std::uint8_t>>>& files) {
  CaTable table;
  for (const auto& [fileName, der] : files) {
    if (der.empty() || der.size() > sizeof TavrinCertificate::certificate) continue;
    CertificateDetails details{};
    if (tavrin_getCertificateDetails(der.data(), static_cast<int>(der.size()), &details, nullptr) != 0) continue;
    const std::string key = extractCommonName(details.subjectName);
    table.certificates.emplace(key, certificateRecord(key, {}, der));
    table.names.insert_or_assign(key, CaTable::Names{key, extractCommonName(details.issuerName)});
  }
  return table;
}

// The issuers' keys in the table, from the certificate's own issuer up to the root; empty when the chain is not
// complete. A certificate without an issuer's name is its own chain.
bool walkIssuers(const CaTable& table, std::string issuer, std::vector<std::string>& chain) {
  while (!issuer.empty()) {
    const bool missing = table.certificates.count(issuer) == 0;
    const bool circular = std::find(chain.begin(), chain.end(), issuer) != chain.end();
    if (missing || circular) {
      logDebug("Issuer '", issuer, "' NOT found \xE2\x80\x94 skipping chain import");
      return false;
    }
    chain.push_back(issuer);
    const CaTable::Names& names = table.names.at(issuer);
    if (names.subject == names.issuer) return true;
    issuer = names.issuer;
  }
  return true;
}

}  // namespace

std::string caFolder() {
  const char separator = platform::pathSeparator;
  return baseFolder() + separator + "TavrinDSC" + separator + "Certificates";
}

TavrinCertificate certificateRecord(std::string_view label, ByteView id, ByteView der) {
  TavrinCertificate record{};
  std::copy_n(label.begin(), std::min(label.size(), maximumLabelLength), record.label);
  record.certIdLength = copyToField(record.certId, id);
  record.certificateLength = copyToField(record.certificate, der);
  return record;
}

std::vector<TavrinCertificate> findChain(const TavrinCertificate& certificate, const std::string& issuerName) {
  const std::string folder = caFolder();
  logDebug("CA Folder: ", folder);
  const auto files = tavrin_getFilesWithExtensionsAndConvertDER(folder, caFileExtensions(), nullptr);
  if (files.empty()) return {};
  const CaTable table = readCaFiles(files);
  std::vector<std::string> issuers;
  if (!walkIssuers(table, extractCommonName(issuerName), issuers)) return {};
  std::vector<TavrinCertificate> chain;
  for (auto issuer = issuers.rbegin(); issuer != issuers.rend(); ++issuer) {
    chain.push_back(table.certificates.at(*issuer));
  }
  chain.push_back(certificate);
  return chain;
}

}  // namespace tavrin
