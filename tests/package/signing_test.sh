#!/usr/bin/env bash
# Release signing: scripts/package.sh signs the executable and the package with a certificate made for the tests
# (the test root's "Kestrelix" leaf, in a PFX without the root, as a usual PFX comes) and verifies both against the
# test root given as its trusted roots (--ca); a PFX whose certificate another root issued (that root inside the
# PFX) is refused. Both signatures verify on their own too. Under Wine, with the test root trusted by the
# host's certificate bundle in a mount namespace of this test (Wine's chain engine trusts the host's roots only), the
# signed package installs and the installed executable passes the agent's own trust check (WinVerifyTrust, the chain,
# the maker's name); a copy with one byte changed does not.
# Usage: signing_test.sh <build-folder> <preset>   (inside the build's running Wine prefix; needs root or
# password-less sudo for the mount namespace)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
. "$root/scripts/wine-env.sh"
build=$(cd "$1" && pwd)
preset=$2
fail() { echo "signing_test: $*" >&2; exit 1; }

if [ "${3:-}" != --inside ]; then
  namespace=(unshare --mount --propagation private)
  if [ "$(id -u)" -ne 0 ]; then namespace=(sudo -n --preserve-env "${namespace[@]}"); fi
  "${namespace[@]}" true 2>/dev/null || fail "cannot make a mount namespace here (needs root or sudo)"
  exec "${namespace[@]}" -- "$0" "$build" "$preset" --inside
fi

korva_wine_env "$build"
work="$build/signing-test"
rm -rf "$work"
mkdir -p "$work"
out="$work/run.out"
signing="$build/bin/signing"  # the test chain made at build time (scripts/sign-test-servers.sh)
echo "a test password" >"$work/password"
pfx() {  # $1 leaf, $2 output, [$3 a root to put in]
  openssl pkcs12 -export -inkey "$signing/$1.key" -in "$signing/$1.crt" ${3:+-certfile} ${3:+"$signing/$3.crt"} \
    -passout "file:$work/password" -out "$work/$2" 2>/dev/null || fail "cannot make $2"
}
package() {  # $1 PFX, $2 output folder
  "$root/scripts/package.sh" --pfx "$work/$1" --password-file "$work/password" --ca "$signing/korva.crt" \
    --preset "$preset" --out "$work/$2" --no-build >"$out" 2>&1
}
pfx impostor impostor.pfx stranger
package impostor.pfx refused && fail "a signer the trusted root did not issue verifies: $(cat "$out")"
grep -q 'does not verify' "$out" || fail "unexpected refusal: $(cat "$out")"
pfx kestrelix test.pfx
package test.pfx release || fail "package.sh failed: $(cat "$out")"
msi=$(ls "$work"/release/*.msi)
exe=$(ls "$work"/release/*.exe)
for signed in "$exe" "$msi"; do
  osslsigncode verify -CAfile "$signing/korva.crt" -in "$signed" >"$out" 2>&1 ||
    fail "$(basename "$signed") does not verify: $(cat "$out")"
done
osslsigncode verify -CAfile "$signing/korva.crt" -in "$build/bin/korvaAgentService.exe" >"$out" 2>&1 &&
  fail "the unsigned build verifies"

# The test root joins the host's bundle, for this namespace only.
bundle=/etc/ssl/certs/ca-certificates.crt
cat "$bundle" "$signing/korva.crt" >"$work/bundle.crt"
mount --bind "$work/bundle.crt" "$bundle"

folder='Program Files (x86)'
[[ "$(basename "$msi")" != *x64* ]] || folder='Program Files'
installed="C:\\$folder\\Kestrelix\\Tallowmere\\KorvaAgent\\DeviceControl\\bin\\korvaAgentService.exe"
run() { korva_wine64 "$@" >"$out" 2>&1 </dev/null; }
verify() { korva_wine "$build/bin/korvaVerifyTrust.exe" "$1" >"$out" 2>&1 </dev/null; }
# The executable is a versioned file: a newer one left in its folder would be kept instead of it.
rm -rf "$WINEPREFIX/drive_c/$folder/Kestrelix"
trap 'run msiexec /x "Z:${msi//\//\\}" /qn || true; rm -rf "$WINEPREFIX/drive_c/$folder/Kestrelix"' EXIT
run msiexec /i "Z:${msi//\//\\}" /qn || fail "the signed package did not install: $(cat "$out")"
verify "$installed" || fail "the installed executable is not trusted: $(cat "$out")"
grep -q '^trusted' "$out" || fail "unexpected answer: $(cat "$out")"
cp "$WINEPREFIX/drive_c/$folder/Kestrelix/Tallowmere/KorvaAgent/DeviceControl/bin/korvaAgentService.exe" \
  "$WINEPREFIX/drive_c/changed.exe"
printf '\x90' | dd of="$WINEPREFIX/drive_c/changed.exe" bs=1 seek=$((0x500)) conv=notrunc status=none
verify 'C:\changed.exe' && fail "a copy with one byte changed is trusted: $(cat "$out")"
grep -q '^untrusted: WinVerifyTrust' "$out" || fail "unexpected answer for the changed copy: $(cat "$out")"
korva_wine "$build/bin/korvaSvcCtl.exe" stop >"$out" 2>&1 </dev/null || true
echo "signing_test: the executable and package are signed and verify; installed, the executable is trusted; one byte changed, it is not"
