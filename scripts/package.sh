#!/usr/bin/env bash
# Builds the release installers: build/release/korvaAgentService-x86.msi (the shipped PE32) and
# build/release/korvaAgentService-x64.msi, each from its build's stripped executable, with
# scripts/build-msi.sh (wixl, then the tables wixl cannot write).
# With --pfx, the executable is signed (Authenticode, SHA-256, osslsigncode) before it goes into
# each package, and then each package. Every signature is verified before the script ends: its
# chain must end in a root of the trust file (--ca; the system's bundle by default), its signer must
# be the PFX's own certificate, and its time stamp must verify against the same trust file. The PFX
# needs its certificate and intermediates, not the root. Without --pfx the packages are built
# unsigned, and it says so.
# Usage: scripts/package.sh [--pfx FILE --password-file FILE [--timestamp URL] [--ca FILE]]
#                           [--preset win32|win64] [--out FOLDER] [--no-build]
#   --ca        the trusted roots, PEM (default /etc/ssl/certs/ca-certificates.crt, the system's TLS
#               roots: name the CA's code-signing root when it is not among them, as with roots made
#               for code signing only)
#   --no-build  package what the build folders hold (the tests, which run inside a finished build)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

pfx= password_file= timestamp= ca= out="$root/build/release" build_first=1
presets=(win32 win64)
while [ $# -gt 0 ]; do
  case "$1" in
    --pfx) pfx=$(realpath "${2:?--pfx needs a file}"); shift 2 ;;
    --password-file) password_file=$(realpath "${2:?--password-file needs a file}"); shift 2 ;;
    --timestamp) timestamp=${2:?--timestamp needs a URL}; shift 2 ;;
    --ca) ca=$(realpath "${2:?--ca needs a file}"); shift 2 ;;
    --preset) presets=("${2:?--preset needs win32 or win64}"); shift 2 ;;
    --out) out=$(realpath -m "${2:?--out needs a folder}"); shift 2 ;;
    --no-build) build_first=; shift ;;
    *) echo "usage: $0 [--pfx FILE --password-file FILE [--timestamp URL] [--ca FILE]] [--preset win32|win64] [--out FOLDER] [--no-build]" >&2
       echo "  --ca FILE: the trusted roots (PEM), by default the system's TLS roots; name the CA's code-signing root when it is not among them" >&2
       exit 2 ;;
  esac
done
if [ -n "$pfx" ] && [ -z "$password_file" ]; then echo "package.sh: --pfx needs --password-file" >&2; exit 2; fi
if [ -z "$pfx" ] && { [ -n "$password_file" ] || [ -n "$timestamp" ] || [ -n "$ca" ]; }; then
  echo "package.sh: --password-file, --timestamp and --ca need --pfx" >&2; exit 2
fi
ca=${ca:-/etc/ssl/certs/ca-certificates.crt}
if [ -n "$pfx" ] && [ ! -r "$ca" ]; then echo "package.sh: cannot read the trusted roots $ca" >&2; exit 2; fi

if [ -n "$build_first" ]; then scripts/bootstrap.sh >/dev/null; fi
mkdir -p "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The signer every signature must name: the PFX's own certificate (the one its key belongs to),
# pinned by the SHA-256 of its DER form.
if [ -n "$pfx" ]; then
  openssl pkcs12 -in "$pfx" -passin "file:$password_file" -nokeys -clcerts -out "$work/signer.pem" 2>/dev/null ||
    { echo "package.sh: cannot read $pfx with the password given" >&2; exit 1; }
  signer=$(openssl x509 -in "$work/signer.pem" -outform DER 2>/dev/null | sha256sum | cut -d' ' -f1) ||
    { echo "package.sh: $pfx holds no certificate for its key" >&2; exit 1; }
fi

# Signs $1 into $2 with the PFX (and a time stamp when asked), then verifies the signature.
sign() {
  local args=(sign -pkcs12 "$pfx" -readpass "$password_file" -h sha256 -n "Tallowmere Korva - Agent"
              -in "$1" -out "$2")
  local check=(verify -CAfile "$ca" -require-leaf-hash "sha256:$signer" -in "$2")
  if [ -n "$timestamp" ]; then
    args+=(-ts "$timestamp")
    check+=(-TSA-CAfile "$ca")
  fi
  osslsigncode "${args[@]}" >"$work/sign.out" 2>&1 || { cat "$work/sign.out" >&2; exit 1; }
  osslsigncode "${check[@]}" >"$work/verify.out" 2>&1 ||
    { cat "$work/verify.out" >&2; echo "package.sh: the signature of $2 does not verify" >&2; exit 1; }
  echo "package.sh: signed and verified $2"
}

for preset in "${presets[@]}"; do
  if [ -n "$build_first" ]; then
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" --target korvaAgentService >/dev/null
  fi
  build="$root/build/$preset"
  arch=$(sed -n 's/^KORVA_MSI_ARCH:[A-Z]*=//p' "$build/CMakeCache.txt")
  [ -n "$arch" ] || arch=$([ "$preset" = win64 ] && echo x64 || echo x86)
  version=$(sed -n 's/^CMAKE_PROJECT_VERSION:[A-Z]*=//p' "$build/CMakeCache.txt")
  staging="$work/$preset/bin"
  mkdir -p "$staging"
  msi="$out/korvaAgentService-$arch.msi"
  if [ -n "$pfx" ]; then
    sign "$build/bin/korvaAgentService.exe" "$staging/korvaAgentService.exe"
  else
    cp "$build/bin/korvaAgentService.exe" "$staging/korvaAgentService.exe"
  fi
  scripts/build-msi.sh "$arch" "$version" "$staging/korvaAgentService.exe" "$work/$preset/package.msi"
  if [ -n "$pfx" ]; then
    sign "$work/$preset/package.msi" "$msi"
    cp "$staging/korvaAgentService.exe" "$out/korvaAgentService-$arch.exe"
  else
    cp "$work/$preset/package.msi" "$msi"
    cp "$staging/korvaAgentService.exe" "$out/korvaAgentService-$arch.exe"
  fi
done
if [ -z "$pfx" ]; then echo "package.sh: built UNSIGNED (no --pfx given): neither the executables nor the packages are signed"; fi
ls -l "$out"
