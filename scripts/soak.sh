#!/usr/bin/env bash
# Soak: installs the service into an agent folder of its own Wine prefix (build/soak), starts it
# with the log at debug, and drives it for a bounded time through the real service control manager
# (bench/soak.cpp: settings changes with expiring grants, user control codes, pauses, pipe
# connections, interleaved). Prints the service's handles, private bytes and threads at the start
# and the end, the helper programs started against those expected, and the log lines lost or torn
# across every rolled file. Asserts nothing; exits 1 only when it could not run.
# Usage: scripts/soak.sh [MINUTES (10)]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
minutes=${1:-10}
. scripts/wine-env.sh
scripts/bootstrap.sh >/dev/null
. scripts/demo-agent.sh

preset=$(korva_runnable_preset)
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target korva_soak >/dev/null
built="build/$preset/bin"
work="$root/build/soak"
mkdir -p "$work"
korva_wine_env "$work"
scripts/wine-prefix.sh start "$work" >/dev/null
trap 'scripts/wine-prefix.sh stop "$work" >/dev/null' EXIT
korva_make_demo_agent korva-soak "$built" 5 "$work"
cp "$built/pipeserver-signed.exe" "$agent_unix/pipeserver.exe"
quiet() { korva_wine "$@" >"$work/step.out" 2>&1 </dev/null; }

quiet "$bin/korvaAgentService.exe" /i
korva_wine "$agent_unix/winlogon.exe" >/dev/null 2>&1 </dev/null &
quiet "$bin/korvaSvcCtl.exe" start || { cat "$work/step.out"; exit 1; }
# The stand-in pipe server is refused at each connection: under Wine it runs as the one interactive
# account, not as a service.
echo "soak: $preset build, $minutes min, the stand-in pipe server refused (not a service) at each connection"
korva_wine "$built/korva_soak.exe" $((minutes * 60)) "$agent_win" "$agent_win\\pipeserver.exe" \
  >"$work/soak.out" 2>&1 </dev/null || true
cat "$work/soak.out"
quiet "$bin/korvaSvcCtl.exe" stop || true
quiet "$bin/korvaAgentService.exe" /u || true

# The log, oldest rolled file first. A record starts "[ date time:ms ] [ thread ] [ severity ]"; a
# record's start anywhere but at the start of a line is a torn line, and so is a line that starts
# like a record but breaks off before its message.
logs=()
for n in 4 3 2 1 ""; do
  [ -f "$agent_unix/logs/korva_agentservice$n.log" ] && logs+=("$agent_unix/logs/korva_agentservice$n.log")
done
record='\[ [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{3} \] \[ [0-9]{8,} \] \[ *[A-Z]+ \] \[ [^]]* \] '
lines=$(cat "${logs[@]}" | wc -l)
glued=$(cat "${logs[@]}" | grep -cE ".$record" || true)
broken=$(cat "${logs[@]}" | grep -E '^\[ [0-9]{4}-' | grep -cvE "^$record" || true)
# Lost: the user codes were sent in a fixed order (128-255 without 193), so each code's line in the
# log must follow its predecessor's; a break is a lost line.
lost=$(cat "${logs[@]}" | sed -n 's/.*Inside HandlerEx Method with control word\([0-9]*\)@@@.*/\1/p' |
  awk 'BEGIN { lost = 0 }
       $1 >= 128 && $1 <= 255 {
         if (seen) { want = prev == 255 ? 128 : prev + 1; if (want == 193) want = 194; if ($1 != want) lost++ }
         prev = $1; seen = 1; n++ }
       END { print lost " " n " " prev }')
read -r breaks codes_seen last_seen <<<"$lost"
echo "soak: log: ${#logs[@]} files kept (5 MB each, the oldest dropped as the log rolls), $lines lines;" \
     "$glued glued and $broken broken records (torn: none allowed)"
echo "soak: user codes in the kept log: $codes_seen, $breaks breaks in their order (lost: none allowed)," \
     "the last $last_seen (sent: $(sed -n 's/^soak: last code //p' "$work/soak.out"))"
