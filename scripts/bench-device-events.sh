#!/usr/bin/env bash
# Device event cost under Wine, in-process with real child processes: USB-arrival latency to the
# summary program against a bare CreateProcessW of it, and an arrival/removal storm (events per
# second, handles and private bytes before and after). Prints figures; asserts nothing.
# Usage: scripts/bench-device-events.sh [latency runs (50)] [storm pairs (1000)]
#   BUILD=<folder> picks the cross build folder (default build/bench-device-events).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=${1:-50}
pairs=${2:-1000}
build=${BUILD:-"$root/build/bench-device-events"}
. "$root/scripts/wine-env.sh"

cmake --preset "$(korva_runnable_preset)" -B "$build" >/dev/null
cmake --build "$build" --target korva_device_event_bench >/dev/null

korva_wine_env "$build"
"$root/scripts/wine-prefix.sh" start "$build" >/dev/null
trap '"$root/scripts/wine-prefix.sh" stop "$build" >/dev/null' EXIT

korva_wine "$build/bin/korva_device_event_bench.exe" "$runs" "$pairs" >"$build/device-event-bench.out" 2>&1 </dev/null || true
cat "$build/device-event-bench.out"
