# Sourced by the scripts that run Windows programs: the environment of a build's Wine prefix and
# the choice of Wine loader. Only PE32 programs need the 32-bit loader (/usr/lib/wine/wine), which
# fails on hosts whose kernel runs no 32-bit code; Wine's own chores (wineboot, winecfg, reg) and
# PE32+ programs go through wine64, which runs everywhere.
KORVA_WINE32=/usr/lib/wine/wine
KORVA_WINE64=/usr/lib/wine/wine64

# $1: the build folder; its prefix lives in <build>/wineprefix, or in <build>/wineprefix-<lane> for
# the test lane KORVA_WINE_LANE names: each lane has a registry, service manager and disk of its own,
# so the suites of different lanes run side by side.
korva_wine_env() {
  local build
  build=$(cd "$1" && pwd)
  export WINEPREFIX="$build/wineprefix${KORVA_WINE_LANE:+-$KORVA_WINE_LANE}"
  export WINEARCH=win64
  export WINEDEBUG=-all
  export WINEDLLOVERRIDES="mscoree,mshtml="
  export DISPLAY=
  # The service's clocks read the time zone (the grant expiries among them): one zone for every
  # run, so no result depends on where the host happens to be.
  export TZ=UTC
}

# Succeeds when the host runs 32-bit code (the 32-bit Wine loader starts); otherwise prints why not.
korva_host_runs_32bit() {
  local out
  if out=$("$KORVA_WINE32" --version 2>&1 </dev/null); then return 0; fi
  out=$(echo "${out:-failed}" | head -n 1)
  echo "${out##*: }"  # the system's reason alone, e.g. "Exec format error"
  return 1
}

# Succeeds when $1 is a PE32+ (x86-64) program: the machine field of its PE header is 0x8664.
korva_is_pe32plus() {
  local header machine
  header=$(od -An -tu4 -j60 -N4 "$1" | tr -d ' ')
  machine=$(od -An -tx2 -j$((header + 4)) -N2 "$1" | tr -d ' ')
  [ "$machine" = "8664" ]
}

# Runs a Windows program with the loader its bitness needs.
korva_wine() {
  if korva_is_pe32plus "$1"; then "$KORVA_WINE64" "$@"; else "$KORVA_WINE32" "$@"; fi
}

# Runs one of Wine's own programs (wineboot, winecfg, reg) as a 64-bit program.
korva_wine64() { "$KORVA_WINE64" "$@"; }

# The build that can run on this host: the shipped PE32 (win32) where 32-bit code runs, else the
# PE32+ (win64).
korva_runnable_preset() {
  if korva_host_runs_32bit >/dev/null; then echo win32; else echo win64; fi
}
