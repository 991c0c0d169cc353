#!/usr/bin/env bash
# Makes a build's 64-bit Wine prefix afresh (through wine64, so on any host) and keeps its server
# alive (start), or shuts that server down (stop). Only this prefix's server is touched: every call
# runs with its own WINEPREFIX (the build's, or its lane's: see wine-env.sh).
# A new prefix is a copy of the template prefix, made once beside the build folders and shared by
# them all (build/wineprefix-template for build/win32, build/win64, build/demo, ...): Wine's DLL
# folders (1.2 GB, never written after the set-up) are hard links into it, everything else is
# copied. Making the template takes about 20 s of processor and writes those 1.2 GB; a copy takes
# a second. It is made again when the Wine that made it is not the Wine installed now.
# Usage: wine-prefix.sh start|stop <build-folder>
#        wine-prefix.sh template <build-folder>   (makes the template only, if it is not there)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/wine-env.sh"

cmd=${1:?start|stop|template}
build=${2:?build folder}
mkdir -p "$build"
korva_wine_env "$build"
log="$build/wineprefix.log"  # each lane's wineboot
template="$(cd "$build/.." && pwd)/wineprefix-template"
template_log="$template.log"  # every attempt at the template, kept
wine_version=$(korva_wine64 --version 2>&1 </dev/null || true)

# wineboot leaves Wine's own desktop process (explorer.exe /desktop) running for about a second;
# tests that ask whether a user's explorer.exe runs need it gone. Bounded: at most 10 s.
wait_for_desktop_to_leave() {
  local i pid
  for i in $(seq 1 100); do
    local found=
    for pid in $(pgrep -f 'explorer.exe /desktop' 2>/dev/null || true); do
      # The process may be gone by now; then its environment cannot be read and it does not count.
      if { tr '\0' '\n' <"/proc/$pid/environ"; } 2>/dev/null | grep -qx "WINEPREFIX=$WINEPREFIX"; then found=1; fi
    done
    [ -z "$found" ] && return 0
    sleep 0.1
  done
}

# One attempt at the template: Wine's set-up of a new prefix, then the Windows version.
build_template() {
  local template=$1
  rm -rf "$template"
  WINEPREFIX=$template korva_wine64 wineboot -i >>"$template_log" 2>&1 </dev/null &&
    # The agent targets Windows 10 and later; Wine 8 would otherwise report Windows 7.
    WINEPREFIX=$template korva_wine64 winecfg -v win10 >>"$template_log" 2>&1 </dev/null &&
    { WINEPREFIX=$template wineserver -w >/dev/null 2>&1 </dev/null || true; }
}

# The template, made once under a lock (lanes and builds start side by side) and never run after;
# its marker holds the version of the Wine that made it. A failed set-up is tried again (twice at
# most), its log's end printed: on a fresh clone's loaded first minute, Wine's set-up once failed
# within half a second, and the whole run with it.
make_template() {
  local attempt
  (
    flock 9
    if [ -f "$template/.korva-ready" ] && [ "$(cat "$template/.korva-ready")" = "$wine_version" ]; then exit 0; fi
    for attempt in 1 2 3; do
      echo "creating the template Wine prefix $template (attempt $attempt)"
      echo "--- attempt $attempt, $(date -u +%H:%M:%S)" >>"$template_log"
      if build_template "$template"; then
        echo "$wine_version" >"$template/.korva-ready"
        exit 0
      fi
      echo "wine-prefix.sh: setting up the template failed; the end of $template_log:" >&2
      tail -n 20 "$template_log" >&2
      WINEPREFIX=$template wineserver -k >/dev/null 2>&1 </dev/null || true
      WINEPREFIX=$template wineserver -w >/dev/null 2>&1 </dev/null || true
    done
    exit 1
  ) 9>"$template.lock"
}

# Copies the template to $1: the DLL folders as hard links, the rest (registry, profiles) for real.
# Under the template's lock, shared: copies run side by side, a new template waits for them.
copy_template() {
  local target=$1 part
  local linked=(drive_c/windows/system32 drive_c/windows/syswow64 drive_c/windows/winsxs)
  rm -rf "$target.new"
  mkdir -p "$target.new"
  (
    flock -s 9
    tar -C "$template" "${linked[@]/#/--exclude=./}" --exclude=./.korva-ready -cf - . | tar -C "$target.new" -xf -
    for part in "${linked[@]}"; do
      if [ -d "$template/$part" ]; then cp -al "$template/$part" "$target.new/$part"; fi
    done
  ) 9>"$template.lock"
  rm -rf "$target"
  mv "$target.new" "$target"
}

case "$cmd" in
  start)
    # A 'wineserver -p' while an old server still runs does nothing, so stop any old one first.
    wineserver -k >/dev/null 2>&1 </dev/null || true
    wineserver -w >/dev/null 2>&1 </dev/null || true
    # Every start begins from a fresh copy: nothing a run leaves behind (services, installed
    # products, registry values, files) reaches the next.
    make_template
    echo "creating Wine prefix $WINEPREFIX from the template"
    copy_template "$WINEPREFIX"
    wineserver -p >/dev/null 2>&1 </dev/null
    korva_wine64 wineboot >>"$log" 2>&1 </dev/null
    wait_for_desktop_to_leave
    echo "Wine server running for $WINEPREFIX"
    ;;
  template)
    make_template
    echo "template Wine prefix ready: $template"
    ;;
  stop)
    wineserver -k >/dev/null 2>&1 </dev/null || true
    wineserver -w >/dev/null 2>&1 </dev/null || true
    echo "Wine server stopped for $WINEPREFIX"
    ;;
  *) echo "usage: $0 start|stop|template <build-folder>" >&2; exit 2 ;;
esac
