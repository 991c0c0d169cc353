#!/usr/bin/env bash
# Start and stop latency of the agent service under Wine's service control manager, against a
# bare service that does nothing (the floor). Prints figures; asserts nothing.
# A second pass runs a timeline build of both services (KORVA_STARTUP_TIMELINE, build/<preset>-timeline)
# and prints the share of each start-up step. Between them, the shipped build starts with a grant file
# of a million empty grants: its start against the agent's own, and whether the log rolled.
# Usage: scripts/bench-service.sh [--start-only] [runs]   (default 20)
#   --start-only  the first pass alone: the shipped build against the two floors
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
start_only=
if [ "${1:-}" = --start-only ]; then start_only=1; shift; fi
runs=${1:-20}
build="$root/build/bench-service"
. "$root/scripts/wine-env.sh"
preset=$(korva_runnable_preset)
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target korva_service_bench >/dev/null
timeline="$root/build/$preset-timeline"
if [ -z "$start_only" ]; then
  cmake --preset "$preset" -B "$timeline" -DKORVA_STARTUP_TIMELINE=ON >/dev/null
  cmake --build "$timeline" --target korvaAgentService korvaBareService korvaBareServiceDlls >/dev/null
fi

mkdir -p "$build"
korva_wine_env "$build"
"$root/scripts/wine-prefix.sh" start "$build" >/dev/null
trap '"$root/scripts/wine-prefix.sh" stop "$build" >/dev/null' EXIT

# Laid out as the package installs the agent: BasePath the agent folder (its logs, its data),
# AgentInstallDir its DeviceControl folder, the programs in that folder's bin.
agent="$WINEPREFIX/drive_c/korva-bench"
programs="$agent/DeviceControl/bin"
rm -rf "$agent"; mkdir -p "$programs"
cp "$root"/build/$preset/bin/{korvaAgentService,korvaBareService,korvaBareServiceDlls,korva_service_bench}.exe "$programs/"
korva_wine64 reg add 'HKLM\SOFTWARE\Kestrelix\Tallowmere\KorvaAgent' /v BasePath /t REG_SZ /d 'C:\korva-bench' /reg:32 /f \
  >"$build/bench.out" 2>&1 </dev/null
korva_wine64 reg add 'HKLM\SOFTWARE\Kestrelix\Tallowmere\KorvaAgent' /v AgentInstallDir /t REG_SZ /d 'C:\korva-bench\DeviceControl' /reg:32 /f \
  >>"$build/bench.out" 2>&1 </dev/null
korva_wine "$programs/korvaAgentService.exe" /i >>"$build/bench.out" 2>&1 </dev/null
echo "== shipped build ($preset)"
korva_wine "$programs/korva_service_bench.exe" "$runs" >"$build/result.out" 2>&1 </dev/null || true
cat "$build/result.out"
if [ -n "$start_only" ]; then
  korva_wine "$programs/korvaAgentService.exe" /u >>"$build/bench.out" 2>&1 </dev/null
  exit 0
fi
echo "== shipped build ($preset), a plain grant file of a million empty grants (3 MB)"
mkdir -p "$agent/data/policy"
awk 'BEGIN { printf "["; for (i = 1; i < 1000000; i++) printf "{},"; printf "{}]" }' >"$agent/data/policy/ta.json_tmp"
rolled_before=$(ls "$agent/logs" | grep -c '^korva_agentservice[0-9]' || true)
korva_wine "$programs/korva_service_bench.exe" "$runs" >"$build/grants.out" 2>&1 </dev/null || true
cat "$build/grants.out"
rolled_after=$(ls "$agent/logs" | grep -c '^korva_agentservice[0-9]' || true)
echo "rolled log files: $rolled_before before, $rolled_after after"
rm -f "$agent/data/policy/ta.json_tmp"
echo "== timeline build ($preset, KORVA_STARTUP_TIMELINE)"
cp "$timeline"/bin/{korvaAgentService,korvaBareService,korvaBareServiceDlls}.exe "$programs/"
korva_wine "$programs/korva_service_bench.exe" "$runs" >"$build/timeline.out" 2>&1 </dev/null || true
cat "$build/timeline.out"
korva_wine "$programs/korvaAgentService.exe" /u >>"$build/bench.out" 2>&1 </dev/null
