#!/usr/bin/env bash
# Fuzzes every pure routine that reads outside input: builds the libFuzzer targets (clang, ASan,
# UBSan; the `fuzz` preset), runs each for SECONDS on its corpus in fuzz/corpus/<target>, and prints
# executions and findings per target. New inputs go to build/fuzz/work; a finding's input is kept
# in build/fuzz/findings/<target> and the script fails.
# Usage: scripts/fuzz.sh SECONDS [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:?usage: scripts/fuzz.sh SECONDS [TARGET...]}
shift
scripts/bootstrap.sh host >/dev/null
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz >/dev/null

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for corpus in fuzz/corpus/*/; do targets+=("$(basename "$corpus")"); done
fi

out=build/fuzz
failed=0
total=0
printf '%-16s %14s %9s %s\n' target executions findings "corpus (kept + new)"
for target in "${targets[@]}"; do
  work="$out/work/$target" findings="$out/findings/$target"
  mkdir -p "$work" "$findings"
  log="$out/$target.log"
  # The repository's corpus is read, never written: new inputs land in the work folder.
  if "$out/fuzz/${target}_fuzz" -max_total_time="$seconds" -print_final_stats=1 -timeout=10 -rss_limit_mb=2048 \
       -artifact_prefix="$findings/" "$work" "fuzz/corpus/$target" >"$log" 2>&1; then
    status=0
  else
    status=1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  found=$(find "$findings" -type f | wc -l)
  printf '%-16s %14s %9s %s\n' "$target" "${runs:-?}" "$found" \
    "$(find "fuzz/corpus/$target" -type f | wc -l) + $(find "$work" -type f | wc -l)"
  total=$((total + ${runs:-0}))
  if [ "$status" -ne 0 ] || [ "$found" -ne 0 ]; then
    failed=1
    echo "fuzz.sh: $target found a fault; its input is in $findings and the report in $log:" >&2
    grep -m5 -E "ERROR|runtime error|SUMMARY" "$log" >&2 || tail -20 "$log" >&2
  fi
done
echo "fuzz.sh: $total executions in all, $seconds s per target"
exit "$failed"
