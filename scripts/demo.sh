#!/usr/bin/env bash
# Shows the service under Wine: builds it, installs it into a demo agent folder of its own prefix
# (build/demo), starts it through the service control manager, lets it run, stops it and removes
# it, then prints a short account of what it did (its time to RUNNING, each helper program it
# started, the access-log rows, the grant it revoked, the stop) and where the full logs are.
# It runs the shipped PE32 where the host runs 32-bit code, else the PE32+. Exits non-zero when a
# step fails.
# Usage: scripts/demo.sh [--full]   (--full: also print the whole log, access log and journals)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
full=
case "${1:-}" in
  --full) full=1 ;;
  "") ;;
  *) echo "usage: $0 [--full]" >&2; exit 2 ;;
esac
. scripts/wine-env.sh

scripts/bootstrap.sh >/dev/null
. scripts/demo-agent.sh
preset=$(korva_runnable_preset)
if [ "$preset" = win32 ]; then
  echo "demo: running the shipped PE32 build (build/win32)"
else
  echo "demo: this host runs no 32-bit code ($(korva_host_runs_32bit)); running the PE32+ build (build/win64)"
fi
cmake --preset "$preset" >/dev/null
echo "demo: building (cmake --build --preset $preset)"
cmake --build --preset "$preset" >"$root/build/demo-build.log" 2>&1 ||
  { cat "$root/build/demo-build.log"; exit 1; }
built="build/$preset/bin"

demo="$root/build/demo"
mkdir -p "$demo"
korva_wine_env "$demo"
scripts/wine-prefix.sh start "$demo" >/dev/null
trap 'scripts/wine-prefix.sh stop "$demo" >/dev/null' EXIT

korva_make_demo_agent korva-demo "$built" 5 "$demo"
# A device-control policy makes the file-audit filter wanted: the start-up installs its driver.
echo '{}' > "$agent_unix/data/policy/devicecontrol.json"
cp "$built/pipeserver-signed.exe" "$agent_unix/pipeserver.exe"

failed=()
steps="$demo/steps.out"
: >"$steps"
# Runs one step, its output kept for --full; a failing step is remembered. Never pipes wine: its
# background processes would hold the pipe open.
step() {
  local what=$1
  shift
  { echo "\$ $*"; } >>"$steps"
  if korva_wine "$@" >"$demo/step.out" 2>&1 </dev/null; then
    cat "$demo/step.out" >>"$steps"
  else
    cat "$demo/step.out" >>"$steps"
    failed+=("$what")
    echo "demo: $what FAILED: $(tr -d '\r' <"$demo/step.out" | tail -n 3)"
  fi
}
now_ms() { echo $(( $(date +%s%N) / 1000000 )); }

step "install (/i)" "$bin/korvaAgentService.exe" /i
korva_wine "$agent_unix/winlogon.exe" >/dev/null 2>&1 </dev/null &
# A temporary-access grant that ends 5 s after the start (Wine runs on UTC here, so the agent's
# local-time seconds are Unix seconds): the revoke timer re-applies policy and tells the user.
cat > "$agent_unix/data/policy/ta.json_tmp" <<JSON
[{"ta_id": 1, "policy_name": "demo USB exception", "expiry_time": $(( $(date +%s) + 5 )),
  "duration_type": 0, "revoked": 0, "duration_from": 0, "duration_to": 4102444800}]
JSON
started=$(now_ms)
step "start" "$bin/korvaSvcCtl.exe" start
running_ms=$(( $(now_ms) - started ))
sleep 8
# A stand-in for the companion's pipe server, started from a user's command line, offers control
# code 193 (c1000000): the service's pipe client trusts only a server that runs as a service, and
# under Wine every process runs as the one interactive account, so it hangs up unread.
korva_wine "$agent_unix/pipeserver.exe" 'C:\korva-demo\pipe-answers.txt' c1000000 close >>"$steps" 2>&1 </dev/null || true
answer=$(tr -d '\r' <"$agent_unix/pipe-answers.txt" 2>/dev/null || echo none)
step "stop" "$bin/korvaSvcCtl.exe" stop
stopped=$(tr -d '\r' <"$demo/step.out" | grep -o 'STOPPED after [0-9.]* s' || echo "not stopped")
step "uninstall (/u)" "$bin/korvaAgentService.exe" /u
korva_wine "$bin/korvaSvcCtl.exe" query >"$demo/step.out" 2>&1 </dev/null || true
grep -q "OpenService failed: 1060" "$demo/step.out" || failed+=("removal (the service is still registered)")

log="$agent_unix/logs/korva_agentservice.log"
access="$agent_unix/logs/korva_agentserviceaccess.log"
journals=("$bin/standin-journal.txt" "$agent_unix/standin-journal.txt")
line_time() { grep -m1 -F "$1" "$log" 2>/dev/null | cut -c3-25 || true; }

echo
echo "== What the service did"
echo "started: RUNNING ${running_ms} ms after the start request (StartService to RUNNING, as korvaSvcCtl saw it)"
echo "helper programs it started (the stand-ins' journals: program, then its command line):"
for journal in "${journals[@]}"; do
  [ -f "$journal" ] && tr -d '\r' <"$journal" | awk -F'\t' '{ printf "  %-20s %s\n", $1, $2 }'
done
echo "access-log rows:"
if [ -f "$access" ]; then tail -n +3 "$access" | tr -d '\r' | sed 's/^/  /'; echo; else echo "  (none)"; fi
revoke=$(line_time "@@@ Inside TempAccessRevokeTimerRoutine @@@")
if [ -n "$revoke" ]; then
  echo "grant revoked: the revoke timer ran at $revoke; the user was told (korvaAgentTrayIcon -ta 1 above)"
else
  echo "grant revoked: NO (the revoke timer never ran)"; failed+=("revoke")
fi
echo "pipe: a signed stand-in server that is not a service offered code 193; the service refused it (its answer: $answer)"
echo "stopped: $stopped (under Wine every stop ends with the handler's 20 s wait); removed with /u"
echo "full logs: $log"
echo "           $access"
echo "           ${journals[*]}"
echo "           $steps (each step's own output)"

if [ -n "$full" ]; then
  show() {
    echo; echo "===== $1 ====="
    if [ -f "$2" ]; then cat "$2"; echo; else echo "(none)"; fi
  }
  show "steps" "$steps"
  show "$agent_win\\logs\\korva_agentservice.log" "$log"
  show "$agent_win\\logs\\korva_agentserviceaccess.log" "$access"
  show "helper journal ($agent_win\\DeviceControl\\bin\\standin-journal.txt)" "${journals[0]}"
  show "configuration program and winlogon journal ($agent_win\\standin-journal.txt)" "${journals[1]}"
fi

if [ "${#failed[@]}" -gt 0 ]; then
  echo "demo: FAILED steps: ${failed[*]}" >&2
  exit 1
fi
echo "demo: every step succeeded"
