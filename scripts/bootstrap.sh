#!/usr/bin/env bash
# Installs every build and test dependency on a Debian bookworm machine. Idempotent: when everything
# is already present it only checks and returns within a second or two.
# Usage: scripts/bootstrap.sh [all|host|windows]   (all by default)
#        scripts/bootstrap.sh present host|windows  (exit 0 when that part is all installed)
#   host:    what the native build, its tests, the static checks and the fuzz targets need;
#   windows: what the Windows builds, Wine and the packages need (mingw-w64, Wine, wixl, osslsigncode,
#            msitools, whose msiinfo the package tests read the tables with), the larger part, which
#            scripts/test.sh installs beside the host build on a new machine.
set -euo pipefail

HOST_PACKAGES=(cmake ninja-build g++ libspdlog-dev libfmt-dev rapidjson-dev googletest
               clang libclang-rt-14-dev clang-format clang-tidy)
WINDOWS_PACKAGES=(mingw-w64 g++-mingw-w64-i686-posix wine wine64 wine32:i386 openssl osslsigncode wixl msitools)
# clang-tidy 22 reads the Windows sources in a fifth of version 14's time (it skips the system
# headers); bookworm has it in its security suite only. Installed where that suite offers it: without
# it, scripts/tidy-windows.sh runs the same checks with the default clang-tidy, slower.
OPTIONAL_PACKAGES=(clang-tidy-22)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

missing_packages() {
  local p
  for p in "$@"; do
    installed "$p" || echo "$p"
  done
}

# The optional packages not installed yet that apt can install here.
available_optional_packages() {
  local p
  for p in "${OPTIONAL_PACKAGES[@]}"; do
    if ! installed "$p" && apt-cache show "$p" >/dev/null 2>&1; then echo "$p"; fi
  done
}

install_optional_packages() {
  local todo
  todo=$(available_optional_packages)
  [ -n "$todo" ] || return 0
  # shellcheck disable=SC2086  # one word per package
  if ! DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends $todo </dev/null; then
    echo "bootstrap: could not install" $todo "(optional; the default clang-tidy stands in)" >&2
  fi
}

# The security suite publishes no i386 index on these images; restrict it to amd64 so that
# 'apt-get update' succeeds once i386 is enabled.
restrict_security_suite_to_amd64() {
  local f=/etc/apt/sources.list.d/debian.sources
  [ -f "$f" ] || return 0
  if ! awk 'BEGIN{RS="";FS="\n"} /bookworm-security/ && /Architectures:/ {found=1} END{exit !found}' "$f"; then
    $SUDO python3 - "$f" <<'PY'
import sys
path = sys.argv[1]
stanzas = open(path).read().split("\n\n")
out = []
for s in stanzas:
    if "bookworm-security" in s and "Architectures:" not in s:
        s = s.rstrip("\n") + "\nArchitectures: amd64"
    out.append(s)
open(path, "w").write("\n\n".join(out).rstrip("\n") + "\n")
PY
  fi
}

# amd64 libraries from the security suite would not match their i386 twins from the main suite and
# apt would refuse wine32; take both from the main suite.
pin_security_suite_low() {
  local f=/etc/apt/preferences.d/korva-security-pin
  if [ ! -f "$f" ]; then
    printf 'Package: *\nPin: release l=Debian-Security\nPin-Priority: 100\n' | $SUDO tee "$f" >/dev/null
  fi
}

# Installs `packages` (the optional ones too when `optional` is 1) where any is missing.
install_packages() {
  local optional=$1 todo
  shift
  todo=$(missing_packages "$@")
  if [ -z "$todo" ]; then
    if [ "$optional" -eq 1 ]; then install_optional_packages; fi
    echo "bootstrap: all dependencies present"
    return 0
  fi
  echo "bootstrap: installing:" $todo
  if ! dpkg --print-foreign-architectures | grep -qx i386; then
    $SUDO dpkg --add-architecture i386
  fi
  restrict_security_suite_to_amd64
  pin_security_suite_low
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "$@" </dev/null
  if [ "$optional" -eq 1 ]; then install_optional_packages; fi
  echo "bootstrap: done"
}

main() {
  case "${1:-all}" in
    all) install_packages 1 "${HOST_PACKAGES[@]}" "${WINDOWS_PACKAGES[@]}" ;;
    host) install_packages 0 "${HOST_PACKAGES[@]}" ;;
    windows) install_packages 1 "${WINDOWS_PACKAGES[@]}" ;;
    present)
      case "${2:-}" in
        host) [ -z "$(missing_packages "${HOST_PACKAGES[@]}")" ] ;;
        windows) [ -z "$(missing_packages "${WINDOWS_PACKAGES[@]}")" ] ;;
        *) echo "usage: $0 present host|windows" >&2; return 2 ;;
      esac
      ;;
    *) echo "usage: $0 [all|host|windows] | $0 present host|windows" >&2; return 2 ;;
  esac
}

main "$@"
