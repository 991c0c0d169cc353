#!/usr/bin/env bash
# Runs a Windows program of a build under that build's Wine prefix (the cross builds' test emulator),
# with the loader its bitness needs.
# Usage: wine-exec.sh [--gtest] <build-folder> <program.exe> [args...]
#   --gtest  the program is a GoogleTest program: it passes only when it exits 0 and printed
#            gtest's "[  PASSED  ]" summary and no "[  FAILED  ]" line. Under Wine a program that
#            crashes may still exit 0 (the crash handler prints its dump and the process ends
#            "normally"), so the exit code alone cannot be trusted.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/wine-env.sh"
gtest=
if [ "${1:-}" = --gtest ]; then gtest=1; shift; fi
korva_wine_env "${1:?build folder}"
shift
if [ -z "$gtest" ]; then
  if korva_is_pe32plus "$1"; then exec "$KORVA_WINE64" "$@"; else exec "$KORVA_WINE32" "$@"; fi
fi

# Output goes to a file, never a pipe: Wine's background processes would keep a pipe open.
out=$(mktemp)
trap 'rm -f "$out"' EXIT
status=0
korva_wine "$@" >"$out" 2>&1 </dev/null || status=$?
cat "$out"
if [ "$status" -ne 0 ]; then exit "$status"; fi
if grep -q '^\[  FAILED  \]' "$out"; then exit 1; fi
if ! grep -q '^\[  PASSED  \]' "$out"; then
  echo "wine-exec.sh: $(basename "$1") ended without GoogleTest's summary (it crashed or was cut short)"
  exit 1
fi
