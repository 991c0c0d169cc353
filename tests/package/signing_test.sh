#!/usr/bin/env bash
# Release signing: scripts/package.sh signs the executable and the package with a certificate made for the tests
# (the test root's "Kestrelix" leaf, as a PFX); both signatures verify. Under Wine, with the test root trusted by the
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
openssl pkcs12 -export -inkey "$signing/kestrelix.key" -in "$signing/kestrelix.crt" -certfile "$signing/korva.crt" \
  -passout "file:$work/password" -out "$work/test.pfx" 2>/dev/null || fail "cannot make the test PFX"

"$root/scripts/package.sh" --pfx "$work/test.pfx" --password-file "$work/password" --preset "$preset" \
  --out "$work/release" --no-build >"$out" 2>&1 || fail "package.sh failed: $(cat "$out")"
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
