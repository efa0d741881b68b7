// The issuers of a certificate, found among the CA certificate files of the installation.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "devlib/device_library.h"
#include "devlib/records.h"

namespace tavrin {

// The installation's folder of CA certificates: below $TAVRIN_HOME, else below the first of the usual install folders
// that exists, else below the folder of the running program.
std::string caFolder();

// A certificate as a record to import: its label and id cut to their fields, and the DER, which must fit.
TavrinCertificate certificateRecord(std::string_view label, ByteView id, ByteView der);

// The chain to import, root first and the certificate itself last. Empty when the folder holds no CA files, or when an
// issuer is missing or leads back into the chain. `issuerName` is the certificate's issuer as a name text.
std::vector<TavrinCertificate> findChain(const TavrinCertificate& certificate, const std::string& issuerName);

}  // namespace tavrin
