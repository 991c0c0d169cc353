#!/usr/bin/env bash
# Runs wixl and refuses its package when wixl says anything on its error output: wixl drops an
# attribute it does not handle with no more than a GLib warning ("has no property named ..."), and
# a package built without it would quietly lack what packaging/korvaAgentService.wxs asks for.
# Usage: scripts/wixl-checked.sh <wixl arguments, -o <package> among them>   (run where wixl finds the sources)
set -euo pipefail
msi=
args=("$@")
for i in "${!args[@]}"; do
  if [ "${args[$i]}" = -o ]; then msi=${args[$((i + 1))]:-}; fi
done
[ -n "$msi" ] || { echo "wixl-checked: no -o <package> given" >&2; exit 2; }
said=$(mktemp)
trap 'rm -f "$said"' EXIT
if ! wixl "$@" 2>"$said"; then
  cat "$said" >&2
  rm -f "$msi"
  exit 1
fi
if [ -s "$said" ]; then
  cat "$said" >&2
  echo "wixl-checked: wixl warned while building $msi; the package is removed" >&2
  rm -f "$msi"
  exit 1
fi
