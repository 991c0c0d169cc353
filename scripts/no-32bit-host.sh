#!/usr/bin/env bash
# Runs a command as on a host whose kernel runs no 32-bit code: inside a mount namespace where the
# 32-bit Wine loader, the 32-bit wineserver and the 32-bit dynamic linker are replaced by a program
# that fails with "Exec format error". scripts/test.sh then takes its 64-bit-only branch, and any
# step that still needs 32-bit code fails as it would there. Needs root (unshare --mount); exits 3
# without running anything when it cannot make the namespace.
# Usage: scripts/no-32bit-host.sh <command> [args...]   e.g. scripts/no-32bit-host.sh scripts/test.sh
set -euo pipefail
if [ "${1:-}" = "--inside" ]; then
  shift
  fake=$(mktemp)
  printf '#!/bin/sh\necho "$0: cannot execute binary file: Exec format error" >&2\nexit 126\n' >"$fake"
  chmod +x "$fake"
  for target in /usr/lib/wine/wine /usr/lib/wine/wineserver32 "$(readlink -f /lib/ld-linux.so.2)"; do
    if [ -e "$target" ]; then mount --bind "$fake" "$target"; fi
  done
  rm -f "$fake"  # the mounts keep it
  exec "$@"
fi
if [ "$(id -u)" -ne 0 ] || ! unshare --mount true 2>/dev/null; then
  echo "no-32bit-host.sh: cannot make a mount namespace here (needs root)" >&2
  exit 3
fi
exec unshare --mount --propagation private -- "$0" --inside "$@"
