#!/usr/bin/env bash
# The speed targets against their floors, over several sittings: each sitting runs the logging
# benchmark (scripts/bench-logging.sh: the logger against raw _write, one and four threads, and a
# suppressed record) and the start-up benchmark (scripts/bench-service.sh --start-only: StartServiceW
# to RUNNING against the bare service that loads user32 and ole32). Prints each sitting's figures,
# then each measure's median and spread against its target. Prints figures; asserts nothing.
# Usage: scripts/bench-speed.sh [sittings (3)] [start-up runs per sitting (9)] [log records (1000000)]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
sittings=${1:-3}
runs=${2:-9}
records=${3:-1000000}
. "$root/scripts/wine-env.sh"
preset=$(korva_runnable_preset)
work="$root/build/bench-speed"
mkdir -p "$work"
: >"$work/figures"

# The ratio (the number before "x") on the line of file $1 that starts with or names $2.
ratio() { tr -d '\r' <"$1" | sed -n "s/.*$2.*(\([0-9.]*\)x raw.*/\1/p; s/^$2 *\([0-9.]*\)x$/\1/p" | head -n 1; }

for sitting in $(seq 1 "$sittings"); do
  echo "== sitting $sitting of $sittings ($(date -u +%H:%M:%S) UTC, $preset)"
  "$root/scripts/bench-logging.sh" "$root/build/$preset" "$records" "$records" 3 >"$work/log.out" 2>&1
  "$root/scripts/bench-service.sh" --start-only "$runs" >"$work/start.out" 2>&1
  cat "$work/log.out" "$work/start.out"
  {
    echo "log1 $(ratio "$work/log.out" 'logger, 1 thread')"
    echo "log4 $(ratio "$work/log.out" 'logger, 4 threads')"
    echo "off $(tr -d '\r' <"$work/log.out" | sed -n 's/^suppressed KLOG_DEBUG *\([0-9.]*\) ns.*/\1/p')"
    echo "start $(ratio "$work/start.out" 'start ratio agent\/bare with DLLs')"
    echo "bare $(ratio "$work/start.out" 'start ratio agent\/bare')"
  } >>"$work/figures"
done

# measure, description, target test (awk on the median), target text
summary() {
  local key=$1 what=$2 test=$3 target=$4
  awk -v key="$key" -v what="$what" -v target="$target" '
    $1 == key && $2 != "" { v[++n] = $2 + 0 }
    END {
      if (n == 0) { printf "%-44s no figure\n", what; exit }
      for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (v[j] < v[i]) { t = v[i]; v[i] = v[j]; v[j] = t }
      median = n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
      met = target == "none" ? "" : ('"$test"') ? "met" : "NOT met"
      printf "%-44s median %6.2f  spread %.2f-%.2f  target %-8s %s\n", what, median, v[1], v[n], target, met
    }' "$work/figures"
}
echo "== $sittings sittings, $preset"
summary log1 "logger, 1 thread (x raw _write)" "median >= 0.8" ">= 0.80x"
summary log4 "logger, 4 threads (x raw _write)" "median >= 0.9" ">= 0.90x"
summary off "suppressed record (ns)" "median <= 1" "<= 1 ns"
summary start "start-up (x bare service with user32, ole32)" "median <= 1.15" "<= 1.15x"
summary bare "start-up (x bare service, for reference)" "1" "none"
