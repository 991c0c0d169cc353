#!/usr/bin/env bash
# Builds the release installers: build/release/korvaAgentService-x86.msi (the shipped PE32) and
# build/release/korvaAgentService-x64.msi, each from its build's stripped executable, with wixl.
# With --pfx, the executable is signed (Authenticode, SHA-256, osslsigncode) before it goes into
# each package, and then each package; every signature is verified against the certificate chain
# in the PFX before the script ends. Without --pfx the packages are built unsigned, and it says so.
# Usage: scripts/package.sh [--pfx FILE --password-file FILE [--timestamp URL]] [--preset win32|win64]
#                           [--out FOLDER] [--no-build]
#   --no-build  package what the build folders hold (the tests, which run inside a finished build)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

pfx= password_file= timestamp= out="$root/build/release" build_first=1
presets=(win32 win64)
while [ $# -gt 0 ]; do
  case "$1" in
    --pfx) pfx=$(realpath "${2:?--pfx needs a file}"); shift 2 ;;
    --password-file) password_file=$(realpath "${2:?--password-file needs a file}"); shift 2 ;;
    --timestamp) timestamp=${2:?--timestamp needs a URL}; shift 2 ;;
    --preset) presets=("${2:?--preset needs win32 or win64}"); shift 2 ;;
    --out) out=$(realpath -m "${2:?--out needs a folder}"); shift 2 ;;
    --no-build) build_first=; shift ;;
    *) echo "usage: $0 [--pfx FILE --password-file FILE [--timestamp URL]] [--preset win32|win64] [--out FOLDER] [--no-build]" >&2
       exit 2 ;;
  esac
done
if [ -n "$pfx" ] && [ -z "$password_file" ]; then echo "package.sh: --pfx needs --password-file" >&2; exit 2; fi
if [ -z "$pfx" ] && { [ -n "$password_file" ] || [ -n "$timestamp" ]; }; then
  echo "package.sh: --password-file and --timestamp need --pfx" >&2; exit 2
fi

if [ -n "$build_first" ]; then scripts/bootstrap.sh >/dev/null; fi
mkdir -p "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The chain to verify against: the PFX's certificates (its root among them).
if [ -n "$pfx" ]; then
  openssl pkcs12 -in "$pfx" -passin "file:$password_file" -nokeys -out "$work/chain.pem" 2>/dev/null ||
    { echo "package.sh: cannot read $pfx with the password given" >&2; exit 1; }
fi

# Signs $1 into $2 with the PFX (and a time stamp when asked), then verifies the signature.
sign() {
  local args=(sign -pkcs12 "$pfx" -readpass "$password_file" -h sha256 -n "Tallowmere Korva - Agent"
              -in "$1" -out "$2")
  if [ -n "$timestamp" ]; then args+=(-ts "$timestamp"); fi
  osslsigncode "${args[@]}" >"$work/sign.out" 2>&1 || { cat "$work/sign.out" >&2; exit 1; }
  osslsigncode verify -CAfile "$work/chain.pem" -in "$2" >"$work/verify.out" 2>&1 ||
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
  # wixl finds a source file only by a path relative to its working folder.
  (cd "$work/$preset" && "$root/scripts/wixl-checked.sh" -a "$arch" -D Platform="$arch" -D Version="$version" \
     -D Exe=bin/korvaAgentService.exe -o "$work/$preset/package.msi" "$root/packaging/korvaAgentService.wxs")
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
