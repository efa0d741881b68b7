// The issuers of a certificate, found among the CA certificate files of the installation.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "devlib/device_library.h"
#include "devlib/records.h"

namespace tavrin {

// A certificate as a record to import: the label cut to 128 bytes, the id cut to its field, and the DER, which must
// fit.
TavrinCertificate certificateRecord(std::string_view label, ByteView id, ByteView der);

// The chain to import, root first and the certificate itself last. Empty when the folder holds no CA files, when an
// issuer is missing, or when the issuers form a loop. `issuerName` is the certificate's issuer as a name text. Calls
// the device library.
std::vector<TavrinCertificate> findChain(const TavrinCertificate& certificate, const std::string& issuerName);

}  // namespace tavrin
