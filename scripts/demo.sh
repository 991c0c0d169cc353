#!/usr/bin/env bash
# Shows the service under Wine: builds it, installs it into a demo agent folder of its own prefix
# (build/demo), starts it through the service control manager, lets it run, stops it, removes it
# and prints its log. It runs the shipped PE32 where the host runs 32-bit code, else the PE32+.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
. scripts/wine-env.sh

scripts/bootstrap.sh
. scripts/demo-agent.sh
preset=$(korva_runnable_preset)
if [ "$preset" = win32 ]; then
  echo "demo: running the shipped PE32 build (build/win32)"
else
  echo "demo: this host runs no 32-bit code ($(korva_host_runs_32bit)); running the PE32+ build (build/win64)"
fi
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
built="build/$preset/bin"

demo="$root/build/demo"
mkdir -p "$demo"
korva_wine_env "$demo"
scripts/wine-prefix.sh start "$demo"
trap 'scripts/wine-prefix.sh stop "$demo" >/dev/null' EXIT

korva_make_demo_agent korva-demo "$built" 5 "$demo"
# A device-control policy makes the file-audit filter wanted: the start-up installs its driver.
echo '{}' > "$agent_unix/data/policy/devicecontrol.json"

run() {  # never pipe wine: its background processes would hold the pipe open
  echo "\$ $*"
  korva_wine "$@" >"$demo/step.out" 2>&1 </dev/null || true
  cat "$demo/step.out"; echo
}

cp "$built/pipeserver-signed.exe" "$agent_unix/pipeserver.exe"

run "$bin/korvaAgentService.exe" /i
korva_wine "$agent_unix/winlogon.exe" >/dev/null 2>&1 </dev/null &
# A temporary-access grant that ends 5 s after the start (Wine runs on UTC here, so the agent's
# local-time seconds are Unix seconds): the revoke timer re-applies policy and tells the user.
cat > "$agent_unix/data/policy/ta.json_tmp" <<JSON
[{"ta_id": 1, "policy_name": "demo USB exception", "expiry_time": $(( $(date +%s) + 5 )),
  "duration_type": 0, "revoked": 0, "duration_from": 0, "duration_to": 4102444800}]
JSON
run "$bin/korvaSvcCtl.exe" start
sleep 8
run "$bin/korvaSvcCtl.exe" query
# A stand-in for the companion's pipe server, started from a user's command line, offers control
# code 193 (c1000000): the service's pipe client trusts only a server that runs as a service, and
# under Wine every process runs as the one interactive account, so it hangs up unread (its log
# says why). The demo then stops the service itself.
echo "demo: a signed pipe server that is not a service offers code 193; the service's pipe client refuses it"
run "$agent_unix/pipeserver.exe" 'C:\korva-demo\pipe-answers.txt' c1000000 close
answer=$(cat "$agent_unix/pipe-answers.txt" 2>/dev/null || echo none)
echo "demo: the pipe server's answer: $answer"
run "$bin/korvaSvcCtl.exe" stop
run "$bin/korvaAgentService.exe" /u
korva_wine "$bin/korvaSvcCtl.exe" query >"$demo/step.out" 2>&1 </dev/null || true
if grep -q "OpenService failed: 1060" "$demo/step.out"; then
  echo "demo: uninstalled (the service control manager no longer knows the service)"
else
  echo "demo: the service is still registered after /u:"; cat "$demo/step.out"
fi

show() {
  echo; echo "===== $1 ====="
  if [ -f "$2" ]; then cat "$2"; echo; else echo "(none)"; fi
}
show "$agent_win\\logs\\korva_agentservice.log" "$agent_unix/logs/korva_agentservice.log"
show "$agent_win\\logs\\korva_agentserviceaccess.log" "$agent_unix/logs/korva_agentserviceaccess.log"
show "helper journal ($agent_win\\DeviceControl\\bin\\standin-journal.txt)" "$bin/standin-journal.txt"
show "configuration program and winlogon journal ($agent_win\\standin-journal.txt)" "$agent_unix/standin-journal.txt"
