#!/usr/bin/env bash
# The installer under Wine's msiexec: a silent install leaves the service running with its log and the
# agent's base values, and the service gives its folder its access list; another package of the same
# version is refused (not installed beside it), and so is the other platform's package, though newer;
# the package one version newer fails while a program holds the older service open (the service is
# Vital), then upgrades it (one service, the newer program running, the agent's data and values
# kept) and the older one is then refused; a silent removal leaves no service and no base values, and
# keeps the log. What Wine's msiexec does not model is read from the package's tables: private
# folder IDs, the earlier version removed inside the install's transaction, a service stopped on
# removal only (waited for) and a start that is not waited for; and the Vital bit, the executable's
# file version (compared with the installed program's) and component codes of their own for each
# platform.
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

# The tables (msiinfo is a host program: a pipe from it is safe). Wine removes an earlier version in a
# run of its own and sends a stop without waiting for it, so these show what a run there cannot.
table() { msiinfo export "$1" "$2" | tr -d '\r' | tail -n +4; }
cell() { table "$1" "$2" | awk -F'\t' -v k="$3" -v c="$4" '$1 == k { print $c }'; }
public=$(table "$msi" Directory | cut -f1 | grep -vx TARGETDIR | grep -v '[a-z]' || true)
[ -z "$public" ] || fail "folder IDs a command line may set: $public"
vital=$(cell "$msi" ServiceInstall AgentServiceInstall 6)
((${vital:-0} & 0x8000)) ||
  fail "a service that cannot be created does not fail the install (no Vital bit)"
# Windows' default list for a new service lets interactive users open it until its first start narrows it.
[ "$(cell "$msi" MsiLockPermissionsEx AgentServiceAccess 2)" = AgentServiceInstall ] &&
  [ "$(cell "$msi" MsiLockPermissionsEx AgentServiceAccess 4)" = 'D:(A;;GA;;;SY)(A;;GA;;;BA)' ] ||
  fail "the service is not created with its own access list: $(table "$msi" MsiLockPermissionsEx)"
file_version=$(cell "$msi" File AgentServiceExe 5)  # the installed program's own version, checked below
step() { table "$msi" InstallExecuteSequence | awk -F'\t' -v a="$1" '$1 == a { print $3 }'; }
[ "$(step InstallInitialize)" -lt "$(step RemoveExistingProducts)" ] &&
  [ "$(step RemoveExistingProducts)" -lt "$(step InstallFiles)" ] ||
  fail "the earlier version is not removed between InstallInitialize and InstallFiles: $(table "$msi" InstallExecuteSequence)"
# A stop on install would make any repair stop and restart the service; the removal (its own, or the
# earlier version's in an upgrade) stops it, waiting, and deletes it. A start the installer waits for
# fails the install when the start-up runs long.
removes=
while read -r event wait; do
  (((event & 2) == 0)) || fail "a repair stops the service (a stop on install)"
  if (((event & 1) != 0)) && [ "$wait" != 0 ]; then fail "the installer waits for the service's start"; fi
  if (((event & 160) == 160)) && [ "$wait" = 1 ]; then removes=yes; fi
done < <(table "$msi" ServiceControl | awk -F'\t' '{ print $3, $5 }')
[ -n "$removes" ] || fail "the removal does not stop the service, waiting, and delete it: $(table "$msi" ServiceControl)"
# The other platform's package, one version newer (the newer package's version and program).
newer_version=$(cell "$newer" Property ProductVersion 2)
crossing="$build/msi-test-$other.msi"
"$root/scripts/build-msi.sh" "$other" "$newer_version" "$build/bin/korvaAgentServiceNext.exe" "$crossing" ||
  fail "cannot build the $other package"
codes() { table "$1" Component | cut -f2 | sort; }
shared=$(comm -12 <(codes "$msi") <(codes "$crossing"))
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
# The other platform's package, though newer, is refused: replacing this one would move the agent's
# folders to the other Program Files and leave its data behind.
refused="$build/msi-test-$other.log"
run msiexec /i "$(winpath "$crossing")" /qn /l*v "$(winpath "$refused")" && fail "the $other package replaced the $arch one"
grep -aq '^Property(S): KORVAOTHERPLATFORMFOUND = {' "$refused" || fail "not refused as the other platform's: $refused"

# What the agent keeps of its own: a data file under BasePath and a value it writes.
version() { korva_wine "$svcctl" version >"$out" 2>&1 </dev/null || true; cut -d' ' -f1 "$out" | tr -d '\r'; }
installed=$(version)
[ "$file_version" = "$installed" ] ||
  fail "the package's File row says version '$file_version', the installed program $installed"
mkdir -p "$agent/data"
echo kept >"$agent/data/kept.txt"
run reg add 'HKLM\SOFTWARE\Kestrelix\Tallowmere\KorvaAgent\QVM\Settings' /v KeptByUpgrade /t REG_SZ /d 1 /reg:32 /f ||
  fail "cannot write the agent's value: $(cat "$out")"
# A program that holds the service open (here korvaSvcCtl, waiting for a state that never comes)
# keeps the service that the upgrade's removal deletes, marked for deletion, until it lets go: the
# newer service cannot be created under its name, and as it is Vital, that install fails instead of
# ending without a service. (Wine removed the older version in a run of its own: once the holder
# has gone, so has the service, and the newer version is installed in its place.)
loader=$KORVA_WINE32
if korva_is_pe32plus "$svcctl"; then loader=$KORVA_WINE64; fi
"$loader" "$svcctl" wait PAUSED 120000 >"$build/msi-test-holder.out" 2>&1 </dev/null &
holder=$!
trap 'kill "$holder" 2>/dev/null || true; rm -rf "$programs/Kestrelix"' EXIT
# Wine's msiexec sends the removal's stop without waiting for it, and under Wine a stop takes the
# handler's 20 s bound: the upgrade would replace a program still running. Windows waits (Wait="yes").
korva_wine "$svcctl" stop >"$out" 2>&1 </dev/null || fail "the service did not stop: $(cat "$out")"
kill -0 "$holder" 2>/dev/null || fail "nothing holds the service open: $(cat "$build/msi-test-holder.out")"
run msiexec /i "$(winpath "$newer")" /qn && fail "the upgrade ended without creating its service (not Vital)"
kill "$holder"
wait_for '[[ "$(query)" == *"OpenService failed: 1060"* ]]' 30 1 || fail "the upgrade did not delete the older service: $(query)"
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
echo "msi_test: the tables hold what Wine cannot show; installed $installed, running with its log; the same version's second package and the $other package refused; the upgrade failed while the older service was held open, then upgraded to $upgraded with the agent's data and values kept; downgrade refused; removed; the log stays"
