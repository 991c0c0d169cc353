#!/usr/bin/env bash
# Test-only: signs copies of the stand-in pipe server the ways the pipe client must tell apart,
# with certificates made here for the tests (never the maker's):
#   pipeserver-signed.exe     signed for "Kestrelix" by the test root (the tests trust that root)
#   pipeserver-tampered.exe   the signed copy with one byte of its code changed afterwards
#   pipeserver-untrusted.exe  signed for "Kestrelix" by a root nobody trusts
#   pipeserver-foreign.exe    signed by the test root for another organisation
#   pipeserver-nousage.exe    signed for "Kestrelix" by the test root with a certificate not made for
#                             code signing (server authentication only)
#   korva-test-root.cer       the test root (DER), which the tests add to the machine's root store
# $1: the folder holding pipeserver.exe; everything is written beside it.
set -euo pipefail
out=$1
work="$out/signing"
rm -rf "$work"
rm -f "$out"/pipeserver-{signed,tampered,untrusted,foreign,nousage}.exe "$out/korva-test-root.cer"
mkdir -p "$work"
cd "$work"

root() {  # $1 name
  openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -sha256 -subj "/O=$1 Test Root/CN=$1 Test Root" \
    -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
    -keyout "$1.key" -out "$1.crt" 2>/dev/null
}
leaf() {  # $1 name, $2 organisation, $3 issuing root, $4 extended key usage (codeSigning when absent)
  openssl req -newkey rsa:2048 -nodes -subj "/O=$2/CN=$2 Code Signing" -keyout "$1.key" -out "$1.csr" 2>/dev/null
  printf 'basicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature\nextendedKeyUsage=%s\n' "${4:-codeSigning}" >"$1.ext"
  openssl x509 -req -in "$1.csr" -CA "$3.crt" -CAkey "$3.key" -CAcreateserial -days 3650 -sha256 \
    -extfile "$1.ext" -out "$1.crt" 2>/dev/null
}
sign() {  # $1 leaf, $2 output
  osslsigncode sign -certs "$1.crt" -key "$1.key" -h sha256 -n "Korva test pipe server" \
    -in "$out/pipeserver.exe" -out "$out/$2" >/dev/null
}

root korva
root stranger
leaf kestrelix Kestrelix korva
leaf elsewhere "Other Corp" korva
leaf impostor Kestrelix stranger
leaf webserver Kestrelix korva serverAuth
sign kestrelix pipeserver-signed.exe
sign impostor pipeserver-untrusted.exe
sign elsewhere pipeserver-foreign.exe
sign webserver pipeserver-nousage.exe
cp "$out/pipeserver-signed.exe" "$out/pipeserver-tampered.exe"
# One byte of the code, well inside the first section and outside the signature.
printf '\x90' | dd of="$out/pipeserver-tampered.exe" bs=1 seek=$((0x500)) conv=notrunc status=none
openssl x509 -in korva.crt -outform der -out "$out/korva-test-root.cer"
