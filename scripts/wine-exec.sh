#!/usr/bin/env bash
# Runs a Windows program of a build under that build's Wine prefix (the cross build's test emulator).
# Usage: wine-exec.sh <build-folder> <program.exe> [args...]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/wine-env.sh"
korva_wine_env "${1:?build folder}"
shift
exec wine "$@"
