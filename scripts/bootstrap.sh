#!/usr/bin/env bash
# Installs every build and test dependency on a Debian bookworm machine. Idempotent: when everything
# is already present it only checks and returns within a second or two.
set -euo pipefail

PACKAGES=(cmake ninja-build g++ mingw-w64 g++-mingw-w64-i686-posix
          libspdlog-dev libfmt-dev rapidjson-dev googletest
          wine wine64 wine32:i386 openssl osslsigncode
          clang libclang-rt-14-dev clang-format clang-tidy wixl)
# clang-tidy 22 reads the Windows sources in a fifth of version 14's time (it skips the system
# headers); bookworm has it in its security suite only. Installed where that suite offers it: without
# it, scripts/tidy-windows.sh runs the same checks with the default clang-tidy, slower.
OPTIONAL_PACKAGES=(clang-tidy-22)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

missing_packages() {
  local p
  for p in "${PACKAGES[@]}"; do
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

main() {
  local todo
  todo=$(missing_packages)
  if [ -z "$todo" ]; then
    install_optional_packages
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
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${PACKAGES[@]}" </dev/null
  install_optional_packages
  echo "bootstrap: done"
}

main "$@"
