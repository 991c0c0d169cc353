#!/usr/bin/env bash
# Runs every test: installs what is missing, builds and runs the native core tests under ASan/UBSan
# and a few seconds of each fuzz target, builds both Windows builds (the shipped PE32 and the PE32+),
# and runs the whole Wine suite for each build this host can run: both where the kernel runs 32-bit
# code, the PE32+ alone where it does not.
# Usage: scripts/test.sh [--shuffle-runs N]
#   --shuffle-runs N  afterwards, run each tested build's Wine suite N more times in shuffled order
#                     (GTEST_SHUFFLE=1, a new seed each time; a failing run prints its seed)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/wine-env.sh

shuffle_runs=0
while [ $# -gt 0 ]; do
  case "$1" in
    --shuffle-runs) shuffle_runs=${2:?--shuffle-runs needs a count}; shift 2 ;;
    *) echo "usage: $0 [--shuffle-runs N]" >&2; exit 2 ;;
  esac
done

started=$SECONDS
report_time() { echo "test.sh: $1 in $(( (SECONDS - started) / 60 )) min $(( (SECONDS - started) % 60 )) s"; }
tidy_pid=
template_pid=
windows_packages_pid=
# The Windows clang-tidy pass and the making of the template Wine prefix run in process groups of
# their own, ended with the script whichever way it ends. (Not sessions of their own: the kernel's
# autogroups would then share the processor evenly between them and the script's session, whatever
# their nice values.) A package installation under way is let finish: dpkg stopped half-way would
# leave the machine's packages broken.
# Waits at most `seconds` for the background package installation: its exit status, or 124 while it
# still runs (it is then left to finish on its own, and the script no longer waits for it).
wait_for_windows_packages() {
  local deadline=$((SECONDS + $1))
  while kill -0 "$windows_packages_pid" 2>/dev/null; do
    if [ "$SECONDS" -ge "$deadline" ]; then
      echo "test.sh: the Windows build's packages are still installing after $1 s (process $windows_packages_pid," \
           "build/bootstrap-windows.log); left to finish" >&2
      windows_packages_pid=
      return 124
    fi
    sleep 1
  done
  wait "$windows_packages_pid"
}
stop_background_jobs() {
  local pid
  for pid in "$tidy_pid" "$template_pid"; do
    if [ -n "$pid" ]; then kill -- "-$pid" 2>/dev/null || true; fi
  done
  if [ -n "$windows_packages_pid" ]; then
    echo "test.sh: waiting for the Windows build's packages to finish installing (build/bootstrap-windows.log)"
    wait_for_windows_packages 600 || true
  fi
}
trap 'status=$?; stop_background_jobs; if [ "$status" -eq 0 ]; then report_time "every test passed"; else report_time "failed"; fi' EXIT

# The host's part of the packages first. On a new machine the Windows part (mingw-w64, Wine: most of
# the download) installs in the background, beside the host build, its tests, the static checks and
# the fuzz smoke, which need none of it; everything Windows starts once it is there.
scripts/bootstrap.sh host
mkdir -p build
if ! scripts/bootstrap.sh present windows; then
  echo "test.sh: installing the Windows build's packages beside the host build and checks (build/bootstrap-windows.log)"
  scripts/bootstrap.sh windows >build/bootstrap-windows.log 2>&1 </dev/null &
  windows_packages_pid=$!
fi

# Which builds' Wine suites this host can run (it tries Wine's 32-bit loader), and the jobs that start
# as soon as the Windows packages are there.
start_windows_side() {
  if why=$(korva_host_runs_32bit); then
    tested=(win32 win64)
    echo "test.sh: this host runs 32-bit code: testing the PE32 (win32) and the PE32+ (win64) builds"
  else
    tested=(win64)
    echo "test.sh: this host runs no 32-bit code ($KORVA_WINE32: $why; dmesg says whether 32-bit emulation is disabled):" \
         "testing the PE32+ (win64) build only; the PE32 (win32) is built, not run"
  fi
  # clang-tidy over every source file of src/, tools/, bench/ and tests/ as the win64 build compiles
  # it (zero findings) needs only that build's compile commands, so it starts first: minutes of both
  # cores on a fresh clone, at the lowest priority, in the gaps the builds and fuzz runs leave and
  # beside the Wine suites, which spend most of their time waiting on the service's stops.
  cmake --preset win64
  set -m  # job control: the background job gets a process group of its own
  nice -n 19 scripts/tidy-windows.sh >build/win64/tidy-windows.log 2>&1 &
  tidy_pid=$!
  # The template Wine prefix that every lane of both builds copies (scripts/wine-prefix.sh) is made
  # now, beside the host and Windows builds: its set-up mostly waits on the disk (1.2 GB of DLLs
  # written). Made when the suites start, it held every lane back 40-100 s on a fresh clone. Bounded
  # as a lane's start is (ctest's 180 s): a set-up that hangs is ended, and the suites try again.
  timeout --kill-after=10 180 scripts/wine-prefix.sh template build/win64 >build/wineprefix-template.out 2>&1 &
  template_pid=$!
  set +m
}
if [ -z "$windows_packages_pid" ]; then start_windows_side; fi

cmake --preset host
cmake --build --preset host
ctest --preset host
# The include and layout checks and clang-tidy over the fuzz targets (zero findings), then a short
# smoke of every fuzz target on its corpus (scripts/fuzz.sh SECONDS runs longer). clang-tidy over the
# Windows build's sources, the pure core's included, already runs, unless the Windows packages are
# still being installed.
scripts/static-checks.sh --without-windows-pass
scripts/fuzz.sh 3

if [ -n "$windows_packages_pid" ]; then
  # As long as a slow mirror may take for the download (about 1 GB), far below CI's limit.
  status=0
  wait_for_windows_packages 1800 || status=$?
  windows_packages_pid=
  cat build/bootstrap-windows.log
  if [ "$status" -ne 0 ]; then
    echo "test.sh: installing the Windows build's packages failed (above)" >&2
    exit 1
  fi
  start_windows_side
fi

for preset in win32 win64; do
  cmake --preset "$preset"
  cmake --build --preset "$preset"
done
# The end-to-end test whose settled mark judges the branch the host's uptime puts the service in
# (the boot row or none); run it once more as on a machine booted a minute ago, so the boot branch
# is seen end to end on every host.
young_machine_tests='ServiceTest.OtherUserCodes*'
# One build's Wine suite (its lanes side by side, see cmake/Tests.cmake), then its young-machine run.
wine_suite() {
  local preset=$1
  echo "test.sh: Wine suite of the $preset build"
  ctest --preset "$preset" || return 1
  echo "test.sh: end-to-end start-up tests of the $preset build as on a machine booted a minute ago"
  GTEST_FILTER=$young_machine_tests scripts/young-machine.sh ctest --preset "$preset" -R '^e2e'
}
# Should the template have failed, each suite's first lane makes it again, and says so.
if ! wait "$template_pid"; then
  echo "test.sh: making the template Wine prefix ahead failed or took over 180 s (build/wineprefix-template.out):"
  tail -n 20 build/wineprefix-template.out
  WINEPREFIX=$PWD/build/wineprefix-template wineserver -k >/dev/null 2>&1 </dev/null || true
fi
template_pid=
# The builds share nothing but the template (each has its own prefixes), so their suites run side by
# side; each one's output is printed whole once it is done.
pids=()
for preset in "${tested[@]}"; do
  wine_suite "$preset" >"build/$preset/test-suite.log" 2>&1 &
  pids+=($!)
done
failed=()
for i in "${!tested[@]}"; do
  status=0
  wait "${pids[$i]}" || status=$?
  cat "build/${tested[$i]}/test-suite.log"
  if [ "$status" -ne 0 ]; then failed+=("${tested[$i]}"); fi
done
suites_ended=$SECONDS
tidy_status=0
wait "$tidy_pid" || tidy_status=$?
tidy_pid=
cat build/win64/tidy-windows.log
echo "test.sh: the Windows clang-tidy pass ended $((SECONDS - suites_ended)) s after the Wine suites"
if [ "${#failed[@]}" -gt 0 ]; then
  echo "test.sh: the Wine suite failed for: ${failed[*]}" >&2
  exit 1
fi
[ "$tidy_status" -eq 0 ] || exit 1

for run in $(seq 1 "$shuffle_runs"); do
  for preset in "${tested[@]}"; do
    seed=$(( (RANDOM << 15 | RANDOM) % 99999 + 1 ))
    echo "test.sh: shuffled run $run of $shuffle_runs, $preset build, GTEST_RANDOM_SEED=$seed"
    GTEST_SHUFFLE=1 GTEST_RANDOM_SEED=$seed ctest --preset "$preset" ||
      { echo "test.sh: shuffled run $run of the $preset build failed with GTEST_RANDOM_SEED=$seed" >&2; exit 1; }
  done
done
