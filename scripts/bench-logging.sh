#!/usr/bin/env bash
# Builds the logging benchmark and runs it under Wine: records per second through the service
# logger into a rolling file with one and four threads, the same lines written raw with one _write
# each (the limit), and the cost of a suppressed record. Prints figures; asserts nothing.
# Usage: scripts/bench-logging.sh [build-folder] [records] [records-for-4-threads] [rounds]
#   build-folder defaults to $KORVA_BENCH_BUILD, else the build this host runs (build/win32, or
#   build/win64 where the host runs no 32-bit code).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/scripts/wine-env.sh"
preset=$(korva_runnable_preset)
build=${1:-${KORVA_BENCH_BUILD:-$root/build/$preset}}
records=${2:-1000000}
threadRecords=${3:-$records}
rounds=${4:-3}

if [ ! -f "$build/build.ninja" ]; then
  cmake --preset "$preset" -S "$root" -B "$build" >/dev/null
fi
cmake --build "$build" --target korva_log_bench >/dev/null

# A prefix is made once per build folder; the benchmark itself needs no persistent server.
if [ ! -f "$build/wineprefix/system.reg" ]; then
  "$root/scripts/wine-prefix.sh" start "$build" >/dev/null
  "$root/scripts/wine-prefix.sh" stop "$build" >/dev/null
fi

out=$(mktemp)
trap 'rm -f "$out"' EXIT
# Output goes to a file: Wine's background processes would keep a pipe open.
"$root/scripts/wine-exec.sh" "$build" "$build/bin/korva_log_bench.exe" "$records" "$threadRecords" "$rounds" \
  >"$out" 2>&1 </dev/null
cat "$out"
