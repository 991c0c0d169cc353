#!/usr/bin/env bash
# The installer under Wine's msiexec: a silent install leaves the service running with its log and
# the agent's base values, and the service gives its folder its access list; a silent removal leaves
# no service and no base values, and keeps the log.
# Usage: msi_test.sh <build-folder> <installer.msi>   (inside the build's running Wine prefix)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/../../scripts/wine-env.sh"
build=$(cd "$1" && pwd)
msi=$2
korva_wine_env "$build"
svcctl="$build/bin/korvaSvcCtl.exe"
out="$build/msi-test.out"
fail() { echo "msi_test: $*" >&2; exit 1; }
run() { korva_wine64 "$@" >"$out" 2>&1 </dev/null; }  # never a pipe: Wine's processes would hold it
query() { korva_wine "$svcctl" query >"$out" 2>&1 </dev/null || true; cat "$out"; }
base_path() {
  run reg query 'HKLM\SOFTWARE\Kestrelix\Tallowmere\KorvaAgent' /v BasePath /reg:32 || true
  sed -n 's/.*BasePath *REG_SZ *//p' "$out" | tr -d '\r'
}
winpath() { local p; p="$(cd "$(dirname "$1")" && pwd)/$(basename "$1")"; echo "Z:${p//\//\\}"; }
# Polls a condition (a command line) every $3 seconds, $2 times at most; its last answer is the result.
wait_for() { local i; for i in $(seq 1 "$2"); do eval "$1" && return 0; sleep "$3"; done; eval "$1"; }
case "$(basename "$msi")" in
  *x64*) folder='Program Files' ;;
  *) folder='Program Files (x86)' ;;
esac
programs="$WINEPREFIX/drive_c/$folder"
agent="$programs/Kestrelix/Tallowmere/KorvaAgent"
log="$agent/logs/korva_agentservice.log"
rm -rf "$programs/Kestrelix"
trap 'rm -rf "$programs/Kestrelix"' EXIT

run msiexec /i "$(winpath "$msi")" /qn || fail "msiexec /i failed: $(cat "$out")"
korva_wine "$svcctl" wait RUNNING 30000 >"$out" 2>&1 </dev/null || fail "not RUNNING after the install: $(cat "$out")"
[ "$(base_path)" = "C:\\$folder\\Kestrelix\\Tallowmere\\KorvaAgent\\" ] || fail "BasePath is '$(base_path)'"
started='grep -q "TESK agent service started successfully." "$log" 2>/dev/null'
wait_for "$started" 100 0.1 || fail "the log holds no start: $log"
# wixl cannot give a folder an access list: the service gives its folders theirs as it starts.
secured="Access rules of the agent folder BasePath [C:\\$folder\\Kestrelix\\Tallowmere\\KorvaAgent\\] applied."
grep -qF "$secured" "$log" || fail "the service did not give its folder its access list: $log"

run msiexec /x "$(winpath "$msi")" /qn || fail "msiexec /x failed: $(cat "$out")"
# Under Wine a stop takes the handler's 20 s bound; the service is deleted once it has stopped.
wait_for '[[ "$(query)" == *"OpenService failed: 1060"* ]]' 60 1 || fail "the service is still registered: $(query)"
[ -z "$(base_path)" ] || fail "BasePath is still '$(base_path)'"
eval "$started" || fail "the removal took the log with it"
echo "msi_test: installed, running with its log, removed; the log stays"
