// The files in the folder of CA certificates, DER or PEM. The software token parses them, and the module searches a
// chain for the last one. An input has the files with the bytes FF FE FD between them.
#include <algorithm>

#include "fuzz_input.h"
#include "objects/ca_chain.h"
#include "softtoken/certificates.h"
#include "softtoken/failure.h"

using Files = std::vector<std::pair<std::string, std::vector<std::uint8_t>>>;

static Files files;

// The operations of the device library that the module calls, without a disk.
Files tavrin_getFilesWithExtensionsAndConvertDER(const std::string&, const std::vector<std::string>&, void*) {
  return files;
}

int tavrin_getCertificateDetails(const std::uint8_t* der, int length, CertificateDetails* details, void*) {
  try {
    const softtoken::ByteView whole(der, static_cast<std::size_t>(length));
    const softtoken::CertificateFields fields = softtoken::parseCertificate(whole);
    for (const softtoken::ByteView part : {fields.serial, fields.issuer, fields.subject})
      requireThat(part.data() >= der && part.data() + part.size() <= der + length);
    details->subjectName = fields.subjectText;
    details->issuerName = fields.issuerText;
    return 0;
  } catch (const softtoken::Failure&) {
    return 1;
  }
}

// libksba leaks what it has read of a certificate when it finds an unexpected element.
extern "C" const char* __lsan_default_suppressions() { return "leak:libksba\n"; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("TAVRIN_REGISTRY", "/nowhere", 1);  // errors only are logged, and this search logs none
  return setenv("TAVRIN_HOME", "/nowhere", 1);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static constexpr std::uint8_t separator[] = {0xFF, 0xFE, 0xFD};
  files.clear();
  for (const std::uint8_t *start = data, *const end = data + size; start < end;) {
    const auto* stop = std::search(start, end, std::begin(separator), std::end(separator));
    if (auto der = softtoken::certificateInFile({start, stop})) files.emplace_back("", std::move(*der));
    start = stop == end ? end : stop + std::size(separator);
  }
  CertificateDetails details{};
  if (files.empty() || files.back().second.size() > sizeof TavrinCertificate::certificate) return 0;
  const std::vector<std::uint8_t> leaf = files.back().second;
  if (tavrin_getCertificateDetails(leaf.data(), static_cast<int>(leaf.size()), &details, nullptr) != 0) return 0;
  const auto chain = tavrin::findChain(tavrin::certificateRecord("leaf", {}, leaf), details.issuerName);
  requireThat(chain.size() <= files.size() + 1);
  requireThat(chain.empty() || std::ranges::equal(tavrin::certificate(chain.back()), leaf));
  return 0;
}
