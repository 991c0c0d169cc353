#!/usr/bin/env bash
# Runs every test: installs what is missing, builds both presets, runs the native core tests under
# ASan/UBSan, then the Windows tests under this build's own Wine prefix.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh

cmake --preset host
cmake --build --preset host
ctest --preset host

cmake --preset win32
cmake --build --preset win32
ctest --preset win32
