#!/usr/bin/env bash
# Runs a Windows program of a build under that build's Wine prefix (the cross builds' test emulator),
# with the loader its bitness needs.
# Usage: wine-exec.sh <build-folder> <program.exe> [args...]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/wine-env.sh"
korva_wine_env "${1:?build folder}"
shift
if korva_is_pe32plus "$1"; then exec "$KORVA_WINE64" "$@"; else exec "$KORVA_WINE32" "$@"; fi
