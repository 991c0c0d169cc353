#!/usr/bin/env bash
# The installer under Wine's msiexec: a silent install leaves the service running with its log and the
# agent's base values, and the service gives its folder its access list; another package of the same
# version is refused (not installed beside it); the package one version newer
# upgrades it in place (one service, the newer program running, the agent's data and values kept) and the
# older one is then refused; a silent removal leaves no service and no base values, and keeps the log.
# What Wine's msiexec does not model is read from the package's tables: private folder IDs, maintenance
# by administrators only, the earlier version removed inside the install's transaction, a start that
# is not waited for, and component codes of their own for each platform.
# Usage: msi_test.sh <build-folder> <installer.msi> <same-version-installer.msi> <newer-installer.msi>
#        (in the build's running Wine prefix)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
. "$root/scripts/wine-env.sh"
build=$(cd "$1" && pwd)
msi=$2
same=$3
newer=$4
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
folder='Program Files (x86)' arch=x86 other=x64
[[ "$(basename "$msi")" != *x64* ]] || folder='Program Files' arch=x64 other=x86

# The tables (msiinfo is a host program: a pipe from it is safe). Wine gives every user AdminUser and
# removes an earlier version in a transaction of its own, so these show what a run there cannot.
table() { msiinfo export "$1" "$2" | tr -d '\r' | tail -n +4; }
public=$(table "$msi" Directory | cut -f1 | grep -vx TARGETDIR | grep -v '[a-z]' || true)
[ -z "$public" ] || fail "folder IDs a command line may set: $public"
table "$msi" LaunchCondition | grep -q '^NOT Installed OR UPGRADINGPRODUCTCODE OR AdminUser'$'\t' ||
  fail "no launch condition keeps a repair, change or removal to administrators: $(table "$msi" LaunchCondition)"
table "$msi" Property | grep -qx 'MSIUSEREALADMINDETECTION'$'\t''1' || fail "AdminUser is not the user's own"
step() { table "$msi" InstallExecuteSequence | awk -F'\t' -v a="$1" '$1 == a { print $3 }'; }
[ "$(step InstallInitialize)" -lt "$(step RemoveExistingProducts)" ] &&
  [ "$(step RemoveExistingProducts)" -lt "$(step InstallFiles)" ] ||
  fail "the earlier version is not removed between InstallInitialize and InstallFiles: $(table "$msi" InstallExecuteSequence)"
# A start the installer waits for fails the install when the start-up runs long; a stop it must wait for.
while read -r event wait; do
  if (((event & 1) != 0)) && [ "$wait" != 0 ]; then fail "the installer waits for the service's start"; fi
  if (((event & 34) != 0)) && [ "$wait" != 1 ]; then fail "the installer does not wait for the service's stop"; fi
done < <(table "$msi" ServiceControl | awk -F'\t' '{ print $3, $5 }')
(cd "$build" && "$root/scripts/wixl-checked.sh" -a "$other" -D Platform="$other" -D Version=1.0.0 \
   -D Exe=bin/korvaAgentService.exe -o "$build/msi-test-$other.msi" "$root/packaging/korvaAgentService.wxs") ||
  fail "cannot build the $other package"
codes() { table "$1" Component | cut -f2 | sort; }
shared=$(comm -12 <(codes "$msi") <(codes "$build/msi-test-$other.msi"))
[ -z "$shared" ] || fail "the $arch and $other packages share component codes: $shared"

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
# Another package of the installed version (a product code of its own) is refused, not installed beside it.
refused="$build/msi-test-same.log"
run msiexec /i "$(winpath "$same")" /qn /l*v "$(winpath "$refused")" && fail "a second package of the version installed"
grep -aq '^Property(S): KORVASAMEORNEWERFOUND = {' "$refused" || fail "not refused as the same version: $refused"

# What the agent keeps of its own: a data file under BasePath and a value it writes.
version() { korva_wine "$svcctl" version >"$out" 2>&1 </dev/null || true; cut -d' ' -f1 "$out" | tr -d '\r'; }
installed=$(version)
mkdir -p "$agent/data"
echo kept >"$agent/data/kept.txt"
run reg add 'HKLM\SOFTWARE\Kestrelix\Tallowmere\KorvaAgent\QVM\Settings' /v KeptByUpgrade /t REG_SZ /d 1 /reg:32 /f ||
  fail "cannot write the agent's value: $(cat "$out")"
# Wine's msiexec sends the stop without waiting for it, and under Wine a stop takes the handler's
# 20 s bound: the upgrade would replace a program still running. Windows waits (Wait="yes").
korva_wine "$svcctl" stop >"$out" 2>&1 </dev/null || fail "the service did not stop: $(cat "$out")"
run msiexec /i "$(winpath "$newer")" /qn || fail "the upgrade failed: $(cat "$out")"
korva_wine "$svcctl" wait RUNNING 60000 >"$out" 2>&1 </dev/null || fail "not RUNNING after the upgrade: $(cat "$out")"
upgraded=$(version)
newest=$(printf '%s\n' "$installed" "$upgraded" | sort -V | tail -n 1)
[ "$upgraded" != "$installed" ] && [ "$newest" = "$upgraded" ] ||
  fail "the upgrade left version $upgraded registered (was $installed)"
run reg query 'HKLM\SYSTEM\CurrentControlSet\Services' || true
[ "$(grep -c 'Tallowmere Korva - Agent' "$out")" = 1 ] || fail "not exactly one service after the upgrade: $(cat "$out")"
[ -f "$agent/data/kept.txt" ] || fail "the upgrade removed the agent's data"
run reg query 'HKLM\SOFTWARE\Kestrelix\Tallowmere\KorvaAgent\QVM\Settings' /v KeptByUpgrade /reg:32 ||
  fail "the upgrade removed the agent's value"
[ "$(base_path)" = "C:\\$folder\\Kestrelix\\Tallowmere\\KorvaAgent\\" ] || fail "BasePath after the upgrade is '$(base_path)'"
run msiexec /i "$(winpath "$msi")" /qn && fail "the older package installed over the newer one"
[ "$(version)" = "$upgraded" ] || fail "the refused downgrade changed the program: $(version)"

run msiexec /x "$(winpath "$newer")" /qn || fail "msiexec /x failed: $(cat "$out")"
# Under Wine a stop takes the handler's 20 s bound; the service is deleted once it has stopped.
wait_for '[[ "$(query)" == *"OpenService failed: 1060"* ]]' 60 1 || fail "the service is still registered: $(query)"
[ -z "$(base_path)" ] || fail "BasePath is still '$(base_path)'"
eval "$started" || fail "the removal took the log with it"
run reg delete 'HKLM\SOFTWARE\Kestrelix' /f /reg:32 || true
echo "msi_test: the tables hold what Wine cannot show; installed $installed, running with its log; the same version's second package refused; upgraded to $upgraded with the agent's data and values kept; downgrade refused; removed; the log stays"
