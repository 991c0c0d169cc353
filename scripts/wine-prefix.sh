#!/usr/bin/env bash
# Creates a build's Wine prefix on first use and keeps its server alive (start), or shuts that
# server down (stop). Only this build's server is touched: every call runs with its own WINEPREFIX.
# Usage: wine-prefix.sh start|stop <build-folder>
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/wine-env.sh"

cmd=${1:?start|stop}
build=${2:?build folder}
mkdir -p "$build"
korva_wine_env "$build"
log="$build/wineprefix.log"

case "$cmd" in
  start)
    # A 'wineserver -p' while an old server still runs does nothing, so stop any old one first.
    wineserver -k >/dev/null 2>&1 </dev/null || true
    wineserver -w >/dev/null 2>&1 </dev/null || true
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
      echo "creating Wine prefix $WINEPREFIX"
      wineboot -i >"$log" 2>&1 </dev/null
      # The agent targets Windows 10 and later; Wine 8 would otherwise report Windows 7.
      wine winecfg -v win10 >>"$log" 2>&1 </dev/null
      wineserver -w >/dev/null 2>&1 </dev/null || true
    fi
    wineserver -p >/dev/null 2>&1 </dev/null
    wine wineboot >>"$log" 2>&1 </dev/null
    echo "Wine server running for $WINEPREFIX"
    ;;
  stop)
    wineserver -k >/dev/null 2>&1 </dev/null || true
    wineserver -w >/dev/null 2>&1 </dev/null || true
    echo "Wine server stopped for $WINEPREFIX"
    ;;
  *) echo "usage: $0 start|stop <build-folder>" >&2; exit 2 ;;
esac
