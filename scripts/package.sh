#!/usr/bin/env bash
# Builds the installers: build/win32/korvaAgentService-x86.msi (the shipped PE32) and
# build/win64/korvaAgentService-x64.msi, each from its build's stripped executable, with wixl.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh >/dev/null
for preset in win32 win64; do
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" --target korva_msi >/dev/null
done
ls -l build/win32/korvaAgentService-x86.msi build/win64/korvaAgentService-x64.msi
