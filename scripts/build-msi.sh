#!/usr/bin/env bash
# Builds one agent package: packaging/korvaAgentService.wxs through scripts/wixl-checked.sh (which
# refuses a package wixl warned about), then sets in the package's tables what wixl cannot write,
# with msibuild:
# - the ServiceInstall row's Vital bit (ErrorControl 0x8001): a service that cannot be created fails
#   the install, which rolls back, instead of committing a product without its service;
# - the File row's version, the executable's own (<version>.0, as its version resource says), so
#   that the executable is a versioned file to Windows Installer; a versioned file carries no hash;
# - the service's access list from its creation on (an MsiLockPermissionsEx row, Windows Installer
#   5): the one the service sets itself as it starts (kServiceSecurityDescriptor), so that Windows'
#   default list, which lets interactive users query and control a new service, never stands, not
#   even until the first start: a handle opened then would keep those rights.
# Each change is read back: a package that lacks one is removed, and the script fails.
# Usage: scripts/build-msi.sh <x86|x64> <version: major.minor.patch> <executable> <package.msi>
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
[ $# = 4 ] || { echo "usage: $0 <x86|x64> <major.minor.patch> <executable> <package.msi>" >&2; exit 2; }
arch=$1 version=$2 exe=$3 msi=$4
[[ "$arch" =~ ^(x86|x64)$ ]] || { echo "build-msi: platform '$arch' is neither x86 nor x64" >&2; exit 2; }
[[ "$version" =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || { echo "build-msi: version '$version' is not major.minor.patch" >&2; exit 2; }
[ -f "$exe" ] || { echo "build-msi: no executable $exe" >&2; exit 2; }
msi=$(realpath -m "$msi")
file_version=$version.0

# wixl finds a source file only by a path relative to its working folder.
(cd "$(dirname "$exe")" && "$root/scripts/wixl-checked.sh" -a "$arch" -D Platform="$arch" -D Version="$version" \
   -D Exe="$(basename "$exe")" -o "$msi" "$root/packaging/korvaAgentService.wxs")

refuse() {
  echo "build-msi: $*; the package $msi is removed" >&2
  rm -f "$msi"
  exit 1
}
msibuild "$msi" \
  -q "UPDATE ServiceInstall SET ErrorControl = 32769 WHERE ServiceInstall = 'AgentServiceInstall'" \
  -q "UPDATE File SET Version = '$file_version' WHERE File = 'AgentServiceExe'" \
  -q "DELETE FROM MsiFileHash WHERE File_ = 'AgentServiceExe'" ||
  refuse "msibuild could not set the service's Vital bit and the executable's version"
service_sddl=$(sed -n 's/.*kServiceSecurityDescriptor = L"\(.*\)";$/\1/p' "$root/src/service/core/service_status_rules.h")
[[ "$service_sddl" =~ ^D:\( ]] || refuse "no service access list found in src/service/core/service_status_rules.h"
msibuild "$msi" \
  -q "CREATE TABLE \`MsiLockPermissionsEx\` (\`MsiLockPermissionsEx\` CHAR(72) NOT NULL, \`LockObject\` CHAR(72) NOT NULL, \`Table\` CHAR(32) NOT NULL, \`SDDLText\` CHAR(0) NOT NULL, \`Condition\` CHAR(255) PRIMARY KEY \`MsiLockPermissionsEx\`)" \
  -q "INSERT INTO \`MsiLockPermissionsEx\` (\`MsiLockPermissionsEx\`, \`LockObject\`, \`Table\`, \`SDDLText\`) VALUES ('AgentServiceAccess', 'AgentServiceInstall', 'ServiceInstall', '$service_sddl')" ||
  refuse "msibuild could not give the service its access list"
# A query that matches no row succeeds without a word: read every change back.
row() { msiinfo export "$msi" "$1" | tr -d '\r' | awk -F'\t' -v k="$2" -v c="$3" '$1 == k { print $c }'; }
[ "$(row ServiceInstall AgentServiceInstall 6)" = 32769 ] || refuse "the service's ErrorControl is not 0x8001 (Vital)"
[ "$(row File AgentServiceExe 5)" = "$file_version" ] || refuse "the executable's File row does not say version $file_version"
[ "$(row MsiLockPermissionsEx AgentServiceAccess 4)" = "$service_sddl" ] || refuse "the service's access list is not set"
