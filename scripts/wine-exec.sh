#!/usr/bin/env bash
# Runs a Windows program of a build under that build's Wine prefix (the cross builds' test emulator),
# with the loader its bitness needs.
# Usage: wine-exec.sh [--gtest] <build-folder> <program.exe> [args...]
#   --gtest  the program is a GoogleTest program: it passes only when it exits 0 and printed
#            gtest's "[  PASSED  ]" summary and no "[  FAILED  ]" line. Under Wine a program that
#            crashes may still exit 0 (the crash handler prints its dump and the process ends
#            "normally"), so the exit code alone cannot be trusted.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/wine-env.sh"
gtest=
if [ "${1:-}" = --gtest ]; then gtest=1; shift; fi
korva_wine_env "${1:?build folder}"
shift
if [ -z "$gtest" ]; then
  if korva_is_pe32plus "$1"; then exec "$KORVA_WINE64" "$@"; else exec "$KORVA_WINE32" "$@"; fi
fi

# True when the test $1 (Suite.Name) passes the GoogleTest filter $2: one of the patterns before a
# "-" matches it (all do when there are none) and none after it. Patterns are globs, as bash's.
filter_admits() {
  local test=$1 filter=$2 positive negative pattern admitted=
  local -a patterns
  positive=${filter%%-*}
  negative=
  if [[ $filter == *-* ]]; then negative=${filter#*-}; fi
  [ -n "$positive" ] || positive='*'
  IFS=: read -ra patterns <<<"$positive"
  for pattern in "${patterns[@]}"; do
    # shellcheck disable=SC2053  # the pattern is a glob on purpose
    if [[ $test == $pattern ]]; then admitted=1; fi
  done
  IFS=: read -ra patterns <<<"$negative"
  for pattern in "${patterns[@]}"; do
    # shellcheck disable=SC2053
    if [[ $test == $pattern ]]; then admitted=; fi
  done
  [ -n "$admitted" ]
}

# Lanes share out one program's tests (cmake/Tests.cmake): KORVA_GTEST_ONLY names the one test a
# lane runs, KORVA_GTEST_EXCLUDE the tests (patterns, ':' between them) a lane leaves to another.
# Either holds within any GTEST_FILTER the caller set.
# A lane's one test that does not run (renamed, say) fails the lane: the other lanes leave it out.
must_run=
if [ -n "${KORVA_GTEST_ONLY:-}" ]; then
  if filter_admits "$KORVA_GTEST_ONLY" "${GTEST_FILTER:-*}"; then
    export GTEST_FILTER=$KORVA_GTEST_ONLY
    must_run=$KORVA_GTEST_ONLY
  else
    export GTEST_FILTER='-*'
  fi
elif [ -n "${KORVA_GTEST_EXCLUDE:-}" ]; then
  filter=${GTEST_FILTER:-*}
  if [[ $filter == *-* ]]; then filter+=":$KORVA_GTEST_EXCLUDE"; else filter+="-$KORVA_GTEST_EXCLUDE"; fi
  export GTEST_FILTER=$filter
fi

# Output goes to a file, never a pipe: Wine's background processes would keep a pipe open.
out=$(mktemp)
trap 'rm -f "$out"' EXIT
status=0
korva_wine "$@" >"$out" 2>&1 </dev/null || status=$?
cat "$out"
# Once a process's last thread has ended, Wine's server sends SIGKILL to its Unix side if that has
# not exited within a few milliseconds, which happens on a loaded machine. After gtest's whole summary
# that kill ends a program whose run is over, so its result stands.
if [ "$status" -eq 137 ] && grep -q '^\[  PASSED  \]' "$out" && ! grep -q '^\[  FAILED  \]' "$out"; then
  echo "wine-exec.sh: $(basename "$1") was ended by SIGKILL after its summary (Wine's end of a finished process)"
  status=0
fi
if [ "$status" -ne 0 ]; then exit "$status"; fi
if grep -q '^\[  FAILED  \]' "$out"; then exit 1; fi
if [ -n "$must_run" ] && ! grep -qF "[       OK ] $must_run (" "$out"; then
  echo "wine-exec.sh: $must_run, the one test of this lane, did not run"
  exit 1
fi
if ! grep -q '^\[  PASSED  \]' "$out"; then
  echo "wine-exec.sh: $(basename "$1") ended without GoogleTest's summary (it crashed or was cut short)"
  exit 1
fi
