#!/bin/bash
# pdfsig of Poppler signs a PDF with a key and a certificate of an NSS database.
source "$(dirname "$0")/lib.sh"
useStandard

createTokenWithKeys
certificateAuthority
clientCertificate rsa 01
{
  printf '%%PDF-1.4\n' && offsets=()
  for object in '/Type/Catalog/Pages 2 0 R' '/Type/Pages/Kids[3 0 R]/Count 1' '/Type/Page/Parent 2 0 R/MediaBox[0 0 300 300]'; do
    offsets+=("$(stat -c %s letter.pdf)")
    printf '%d 0 obj<<%s>>endobj\n' ${#offsets[@]} "$object"
  done
  table=$(stat -c %s letter.pdf)
  printf 'xref\n0 4\n0000000000 65535 f \n'
  printf '%010d 00000 n \n' "${offsets[@]}"
  printf 'trailer<</Root 1 0 R/Size 4>>\nstartxref\n%d\n%%%%EOF\n' "$table"
} >letter.pdf

database=$work/db
mkdir "$database"
recipe PDF
shows "pdfsig verifies" 'Signature is Valid' pdfsig -nssdir "sql:$database" signed.pdf
