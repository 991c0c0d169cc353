#!/usr/bin/env bash
# The footprint at rest, measured from outside: each service runs alone in a Wine prefix of its own
# for SECONDS after a settling time, and Linux's view of its process gives the processor time it
# used, its resident memory at the start, every 5 minutes and at the end, and its threads; the Windows
# side (bench/footprint_probe.cpp) gives its handles and private bytes. Three services per build,
# side by side: the floor (a bare service that loads user32 and ole32, as the agent must before
# RUNNING), the agent feature-free (no policy, no grant), and the agent with a device-control policy
# and a temporary-access grant. Prints figures; asserts nothing.
# Usage: scripts/bench-footprint.sh [SECONDS (300)] [SETTLE_SECONDS (20)]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-300}
settle=${2:-20}
. scripts/wine-env.sh
scripts/bootstrap.sh >/dev/null
. scripts/demo-agent.sh

presets=(win64)
if korva_host_runs_32bit >/dev/null; then presets=(win32 win64); fi
ticks=$(getconf CLK_TCK)

# The Linux process of the Windows program $1 in this shell's prefix.
linux_pid() {
  local pid
  for pid in $(pgrep -f "$1" || true); do
    if { tr '\0' '\n' <"/proc/$pid/environ"; } 2>/dev/null | grep -qx "WINEPREFIX=$WINEPREFIX"; then
      echo "$pid"
      return 0
    fi
  done
  return 1
}
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
rss_kb() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status"; }
threads() { awk '/^Threads:/ {print $2}' "/proc/$1/status"; }
# Resident pages that hold nothing but zeros, in the process's anonymous writable mappings: prints
# "zero-kb=N stack-clear-kb=M", M counting only runs of at least 200 such pages side by side. Wine
# starts every thread by zero-filling 960 KB (240 pages) of its stack below the first frame, so each
# thread, the floor's included, keeps one such run resident whatever it does afterwards.
zero_pages() {
  python3 - "$1" <<'PY'
import struct, sys
pid = sys.argv[1]
blank = bytes(4096)
zero, runs = 0, []
with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/pagemap", "rb") as pagemap, \
        open(f"/proc/{pid}/mem", "rb") as mem:
    for line in maps:
        fields = line.split()
        if len(fields) > 5 or not fields[1].startswith("rw"):
            continue
        start, end = (int(x, 16) for x in fields[0].split("-"))
        pagemap.seek(start // 4096 * 8)
        entries = pagemap.read((end - start) // 4096 * 8)
        run = 0
        for i in range(len(entries) // 8):
            blank_page = False
            if struct.unpack_from("<Q", entries, i * 8)[0] >> 63:  # resident
                try:
                    mem.seek(start + i * 4096)
                    blank_page = mem.read(4096) == blank
                except OSError:
                    pass
            if blank_page:
                zero, run = zero + 1, run + 1
            elif run:
                runs.append(run)
                run = 0
        if run:
            runs.append(run)
print(f"zero-kb={zero * 4} stack-clear-kb={sum(r for r in runs if r >= 200) * 4}")
PY
}
# The names of the Windows program $1's threads in this shell's prefix, as winedbg lists them
# (Wine's own threads carry Wine's names, the agent's the names it gives them; "-" for none).
thread_names() {
  local listing
  listing=$(mktemp)
  # Into a file rather than a pipe: nothing Wine starts may hold the reading end open.
  printf 'info thread\nquit\n' >"$listing.in"
  korva_wine64 winedbg <"$listing.in" >"$listing" 2>/dev/null || true
  tr -d '\r' <"$listing" |
    awk -v program="$1" '
      /^[0-9a-f]+ / { on = index($0, program) > 0; next }
      on && /^\t[0-9a-f]+/ { name = $3; names = names (names == "" ? "" : ",") (name == "" ? "-" : name) }
      END { print names }'
  rm -f "$listing" "$listing.in"
}

# One scenario in the lane prefix $2 of build $1: sets up, settles, measures, writes a result line.
scenario() {
  local preset=$1 lane=$2 work="$root/build/bench-footprint-$1" built="$root/build/$1/bin" probe name program pid
  export KORVA_WINE_LANE=$lane
  mkdir -p "$work"
  korva_wine_env "$work"
  scripts/wine-prefix.sh start "$work" >/dev/null
  probe="$built/korva_footprint_probe.exe"
  if [ "$lane" = floor ]; then
    name="Korva Bare"
    mkdir -p "$WINEPREFIX/drive_c/bare"
    cp "$built/korvaBareServiceDlls.exe" "$WINEPREFIX/drive_c/bare/"
    program=korvaBareServiceDlls.exe
    korva_wine "$probe" register "$name" 'C:\bare\korvaBareServiceDlls.exe' >/dev/null 2>&1 </dev/null
  else
    name="Tallowmere Korva - Agent"
    program=korvaAgentService.exe
    korva_make_demo_agent korva-footprint "$built" 4 "$work"
    rm -f "$agent_unix/qvconfig.exe"  # nothing at rest starts the configuration program
    if [ "$lane" = features ]; then
      echo '{}' >"$agent_unix/data/policy/devicecontrol.json"
      cat >"$agent_unix/data/policy/ta.json_tmp" <<JSON
[{"ta_id": 1, "policy_name": "footprint", "expiry_time": $(( $(date +%s) + 86400 )),
  "duration_type": 0, "revoked": 0, "duration_from": 0, "duration_to": 4102444800}]
JSON
    fi
    korva_wine "$bin/korvaAgentService.exe" /i >/dev/null 2>&1 </dev/null
  fi
  korva_wine "$probe" start "$name" >"$work/$lane.start" 2>&1 </dev/null ||
    { echo "$preset $lane: did not start: $(cat "$work/$lane.start")"; return 0; }
  sleep "$settle"
  pid=$(linux_pid "$program") || { echo "$preset $lane: no process found"; return 0; }
  local cpu0 rss0 cpu1 rss1 windows curve waited=0 step
  cpu0=$(cpu_ticks "$pid"); rss0=$(rss_kb "$pid")
  curve=$rss0
  # Resident memory every 5 minutes, so growth that stops early is told from growth that goes on.
  while [ "$waited" -lt "$seconds" ]; do
    step=$(( seconds - waited < 300 ? seconds - waited : 300 ))
    sleep "$step"
    waited=$(( waited + step ))
    curve="$curve,$(rss_kb "$pid")"
  done
  cpu1=$(cpu_ticks "$pid"); rss1=$(rss_kb "$pid")
  local zeros
  zeros=$(zero_pages "$pid" 2>/dev/null) || zeros="zero-kb=? stack-clear-kb=?"
  windows=$(korva_wine "$probe" measure "$name" 2>/dev/null </dev/null | tr -d '\r')
  echo "$preset $lane cpu-ms=$(( (cpu1 - cpu0) * 1000 / ticks )) rss-kb=$rss1 rss-start-kb=$rss0" \
       "linux-threads=$(threads "$pid") $zeros $windows rss-every-5-min-kb=$curve" \
       "thread-names=$(thread_names "$program" </dev/null)"
  korva_wine "$probe" remove "$name" >/dev/null 2>&1 </dev/null || true
  scripts/wine-prefix.sh stop "$work" >/dev/null
}

for preset in "${presets[@]}"; do
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" --target korva_footprint_probe korvaStandIn korvaSvcCtl >/dev/null
done
echo "bench-footprint: ${seconds} s at rest after ${settle} s of settling, each service alone in its prefix, side by side"
results=$(mktemp)
for preset in "${presets[@]}"; do
  for lane in floor free features; do
    scenario "$preset" "$lane" >>"$results" &
  done
done
wait
sort "$results"
echo
# Each agent against its build's floor, as Linux sees it and again without the runs of zeros Wine's
# thread start leaves on every stack (the same measure taken from the floor).
awk -v seconds="$seconds" '
  { for (i = 3; i <= NF; i++) { split($i, kv, "="); v[$1, $2, kv[1]] = kv[2] } builds[$1] = 1 }
  END {
    printf "%-6s %-9s %8s %8s %8s %8s %9s %8s %8s %8s %8s\n", "build", "service", "cpu-ms", "%core",
           "rss-MB", "x-floor", "clear-MB", "x-floor", "growth-KB", "threads", "handles"
    for (b in builds) for (s = 1; s <= 3; s++) {
      name = s == 1 ? "floor" : s == 2 ? "free" : "features"
      rss = v[b, name, "rss-kb"]; floor = v[b, "floor", "rss-kb"]
      clear = v[b, name, "stack-clear-kb"]; floorClear = v[b, "floor", "stack-clear-kb"]
      printf "%-6s %-9s %8d %8.4f %8.1f %8.2f %9.1f %8.2f %8d %8s %8s\n", b, name, v[b, name, "cpu-ms"],
             v[b, name, "cpu-ms"] / (seconds * 10), rss / 1024, (floor > 0 ? rss / floor : 0), clear / 1024,
             (floor > floorClear ? (rss - clear) / (floor - floorClear) : 0),
             rss - v[b, name, "rss-start-kb"], v[b, name, "threads"], v[b, name, "handles"]
    }
  }' "$results"
rm -f "$results"
