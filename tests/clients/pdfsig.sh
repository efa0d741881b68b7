#!/bin/bash
# pdfsig of Poppler signs a PDF with a key and a certificate of an NSS database.
source "$(dirname "$0")/lib.sh"
useStandard

createTokenWithKeys
clientCertificate rsa 01
quietly chromium --headless --no-sandbox --user-data-dir="$work/chromium" --print-to-pdf=letter.pdf "file://$work/document"
database=$work/db
mkdir "$database"
recipe PDF
shows "pdfsig verifies" 'Signature is Valid' pdfsig -nssdir "sql:$database" signed.pdf
