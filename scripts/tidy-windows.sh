#!/usr/bin/env bash
# clang-tidy over every source file of src/, tools/, bench/ and tests/ as the Windows build compiles
# it: the win64 build's compile commands (every command of a file that is built more than once, each
# variant), read by clang for the mingw-w64 target with mingw-w64's headers. The files that hold
# start-up timeline marks are read a second time as the timeline build compiles them
# (KORVA_STARTUP_TIMELINE defined), so the code that build alone runs is read too. The checks are
# .clang-tidy's, warnings as errors, but for the few its header leaves out of this pass; tests/ lays
# its own .clang-tidy over it, which leaves out the few checks that are only noise in test code, and
# the static analyzer reads test files in its shallow mode (fewer paths per test body; see below).
# Which clang-tidy reads a file, and the exact list of checks it runs, scripts/tidy-readers.sh says
# (clang-tidy 22 where installed, with the checks the default clang-tidy enables).
# A file that passed is remembered under build/win64/tidy-passed/ by a hash of everything its result
# depends on: its text, the project headers it includes (directly or not), its compile commands,
# the .clang-tidy files that apply to it, this script and tidy-readers.sh, the clang-tidy that reads
# it, and the versions of clang-tidy and of the packages the system headers come from. It is not
# read again until one of them changes; a fresh clone reads every file.
# Usage: scripts/tidy-windows.sh   (after cmake --preset win64, which writes the compile commands)
set -euo pipefail
cd "$(dirname "$0")/.."
started=$SECONDS

build=build/win64
database=$build/compile_commands.json
if [ ! -f "$database" ]; then
  echo "tidy-windows: $database is missing: run cmake --preset win64 first" >&2
  exit 1
fi
# The build forces a precompiled header (<windows.h>, GoogleTest, standard headers) in ahead of each
# file with -include. clang-tidy reads every file as it is written, without it: a file that leaves
# out an include it needs fails here, and clang never meets gcc's precompiled header. Its own copy of
# the compile commands is the build's without those two arguments.
tidy_database=$build/tidy-database
mkdir -p "$tidy_database"
sed -E 's# -Winvalid-pch -include [^ ]*/cmake_pch\.hxx##' "$database" >"$tidy_database/compile_commands.json"
if grep -q -- '-include [^ ]*/cmake_pch\.hxx -o [^ ]*\.obj ' "$tidy_database/compile_commands.json"; then
  echo "tidy-windows: a file's command in $tidy_database/compile_commands.json still reads the precompiled header" >&2
  exit 1
fi
database=$tidy_database/compile_commands.json

# The checks .clang-tidy enables that this pass leaves out; its header says why.
windows_checks_off=-readability-implicit-bool-conversion,-misc-misplaced-const

cxx=x86_64-w64-mingw32-g++-posix
. scripts/tidy-readers.sh
source_checks=$(enabled_checks src "$windows_checks_off")
# The pure core includes no <windows.h>: its files are read with every check, those two included.
# This is their only reading: the core is Windows code, read here as the Windows build compiles it.
core_checks=$(enabled_checks src)
test_checks=$(enabled_checks tests "$windows_checks_off")
# clang's own compiler headers (stddef.h, the intrinsics), those of the clang-tidy $1.
resource_headers_of() {
  local found
  found=$(find "$(dirname "$1")/../lib/clang" -mindepth 2 -maxdepth 2 -name include -type d | sort -V | tail -n 1)
  if [ -z "$found" ]; then
    echo "tidy-windows: clang's own headers are missing beside $1 (scripts/bootstrap.sh installs them)" >&2
    return 1
  fi
  realpath "$found"
}
# The folders g++ searches, in its order, but clang's compiler headers where g++ has its own: gcc's
# intrinsics do not parse under clang (its fixed-up limits.h is not needed either).
gcc_headers=$(realpath "$($cxx -print-file-name=include)")
gcc_fixed_headers=$(realpath -m "$($cxx -print-file-name=include-fixed)")
mapfile -t gcc_search < <($cxx -xc++ -E -v - </dev/null 2>&1 |
  sed -n '/^#include <\.\.\.> search starts here:$/,/^End of search list\.$/s/^ //p')
# The arguments for the clang-tidy $1, one a line.
tidy_args_of() {
  local resource dir
  resource=$(resource_headers_of "$1") || return 1
  printf '%s\n' --quiet --extra-arg=--target=x86_64-w64-mingw32 --extra-arg=-nostdinc
  for dir in "${gcc_search[@]}"; do
    dir=$(realpath "$dir")
    case "$dir" in
      "$gcc_headers") echo "--extra-arg=-isystem$resource" ;;
      "$gcc_fixed_headers") ;;
      *) echo "--extra-arg=-isystem$dir" ;;
    esac
  done
}
tidy_args=$(tidy_args_of "$tidy")
reference_tidy_args=$(tidy_args_of "$reference_tidy")
# The test files first: they are the longest readings (GoogleTest's headers on top of <windows.h>),
# and two of them left for the end would keep one core waiting on the other.
mapfile -t files < <(git ls-files 'tests/*.cpp'; git ls-files 'src/*.cpp' 'tools/*.cpp' 'bench/*.cpp')
# The static analyzer's budget for the files of tests/ (fixtures and stand-ins included). A test
# body is a run of GoogleTest assertions, each of which branches, so the analyzer spent its whole
# budget of paths on every test body exploring the same assertions' branches: the settings tests
# took 8 s without the analyzer, 22 s with it, 9 s in its shallow mode. That mode still reads every
# test body with every check, on fewer paths and inlining only small functions. The code under test
# keeps the full budget.
test_analyzer_args=(--extra-arg=-Xclang --extra-arg=-analyzer-config --extra-arg=-Xclang --extra-arg=mode=shallow)
# The timeline build's own define: the marks compile to code only with it.
timeline_define=-DKORVA_STARTUP_TIMELINE
# The compile commands of one file (CMake writes "command" before "file" in each entry).
commands_of() {
  awk -v file="  \"file\": \"$PWD/$1\"" \
    '/^  "command": / { command = $0; next } { line = $0; sub(/,$/, "", line) } line == file { print command }' \
    "$database"
}

# The .clang-tidy files of a file's folders below the top one (tests/ has one), which clang-tidy
# lays over the top folder's for that file.
folder_configs() {
  local dir
  dir=$(dirname "$1")
  while [ "$dir" != . ]; do
    if [ -f "$dir/.clang-tidy" ]; then
      echo "== $dir/.clang-tidy"
      cat "$dir/.clang-tidy"
    fi
    dir=$(dirname "$dir")
  done
}

# What every file's result depends on alike.
common_key=$(
  {
    cat .clang-tidy scripts/tidy-windows.sh scripts/tidy-readers.sh
    printf '%s\n' "$tidy_args" "$reference_tidy_args" "${test_analyzer_args[@]}"
    "$tidy" --version
    "$reference_tidy" --version
    echo "$source_checks"
    echo "$core_checks"
    echo "$test_checks"
    $cxx -dumpfullversion
    dpkg-query -W -f='${Package} ${Version}\n' mingw-w64-common mingw-w64-x86-64-dev g++-mingw-w64-x86-64-posix \
      libclang-common-14-dev clang-tidy-22 libclang-common-22-dev libspdlog-dev libfmt-dev rapidjson-dev googletest 2>&1 || true
  } | sha256sum | cut -d' ' -f1
)

passed=$build/tidy-passed
mkdir -p "$passed"
declare -A current=()
todo=()
missing=()
# Each reading is a file and the define it is read with ("none": as the win64 build compiles it).
readings=()
by_reference=0
for file in "${files[@]}"; do
  readings+=("$file none")
  if grep -q 'KORVA_STARTUP_MARK\|KORVA_STARTUP_TIMELINE' "$file"; then readings+=("$file $timeline_define"); fi
done
for reading in "${readings[@]}"; do
  file=${reading% *}
  define=${reading##* }
  commands=$(commands_of "$file")
  if [ -z "$commands" ]; then
    missing+=("$file")
    continue
  fi
  mapfile -t headers < <(project_headers "$file")
  reader=$(reader_of "$file" "${headers[@]}")
  if [ "$reader" != "$tidy" ]; then by_reference=$((by_reference + 1)); fi
  key=$(
    {
      echo "$common_key $file $define $reader"
      echo "$commands"
      cat "$file"
      folder_configs "$file"
      for header in "${headers[@]}"; do
        echo "== $header"
        cat "$header"
      done
    } | sha256sum | cut -d' ' -f1
  )
  current[$key]=1
  [ -f "$passed/$key" ] || todo+=("$key" "$file" "$define" "$reader")
done
if [ "${#missing[@]}" -gt 0 ]; then
  echo "tidy-windows: not in $database (run cmake --preset win64 again): ${missing[*]}" >&2
  exit 1
fi
# Results of files as they no longer are.
for entry in "$passed"/*; do
  [ -e "$entry" ] || continue
  [ -n "${current[$(basename "$entry")]+set}" ] || rm -f "$entry"
done

# Two at a time: the machine has two cores. A file's findings are printed whole once it is read.
check_one() {
  local key=$1 file=$2 define=$3 reader=$4 output
  local -a args
  local source_checks=$KORVA_TIDY_SOURCE_CHECKS core_checks=$KORVA_TIDY_CORE_CHECKS test_checks=$KORVA_TIDY_TEST_CHECKS
  if [ "$reader" = "$KORVA_TIDY" ]; then
    mapfile -t args <<<"$KORVA_TIDY_ARGS"
    source_checks=$KORVA_TIDY_NEW_SOURCE_CHECKS
    core_checks=$KORVA_TIDY_NEW_CORE_CHECKS
    test_checks=$KORVA_TIDY_NEW_TEST_CHECKS
  else
    mapfile -t args <<<"$KORVA_REFERENCE_TIDY_ARGS"
  fi
  [ "$define" = none ] || args+=("--extra-arg=$define")
  case "$file" in
    tests/*)
      args+=("--checks=-*,$test_checks")
      mapfile -t -O "${#args[@]}" args <<<"$KORVA_TIDY_TEST_ARGS"
      ;;
    src/*/core/*) args+=("--checks=-*,$core_checks") ;;
    *) args+=("--checks=-*,$source_checks") ;;
  esac
  if output=$("$reader" -p "$KORVA_TIDY_BUILD" "${args[@]}" "$file" 2>&1); then
    touch "$KORVA_TIDY_PASSED/$key"
  else
    printf '%s\n' "$output" | grep -v '^[0-9]* warnings\? generated\.$' >&2
    return 1
  fi
}
export -f check_one
read_now=$((${#todo[@]} / 4))
status=0
if [ "$read_now" -gt 0 ]; then
  KORVA_TIDY_ARGS=$tidy_args KORVA_REFERENCE_TIDY_ARGS=$reference_tidy_args \
    KORVA_TIDY_TEST_ARGS=$(printf '%s\n' "${test_analyzer_args[@]}") \
    KORVA_TIDY_SOURCE_CHECKS=$source_checks KORVA_TIDY_TEST_CHECKS=$test_checks KORVA_TIDY=$tidy \
    KORVA_TIDY_NEW_SOURCE_CHECKS=$(with_new_names "$source_checks") \
    KORVA_TIDY_CORE_CHECKS=$core_checks KORVA_TIDY_NEW_CORE_CHECKS=$(with_new_names "$core_checks") \
    KORVA_TIDY_NEW_TEST_CHECKS=$(with_new_names "$test_checks") \
    KORVA_TIDY_BUILD=$tidy_database KORVA_TIDY_PASSED=$passed \
    xargs -P 2 -n 4 bash -c 'check_one "$@"' check_one < <(printf '%s\n' "${todo[@]}") || status=$?
fi
if [ "$status" -ne 0 ]; then
  echo "tidy-windows: clang-tidy found faults (above) in the Windows build's sources" >&2
  exit 1
fi
version_of() { "$1" --version | sed -n 's/.*version \([0-9.]*\).*/\1/p' | head -n 1; }
readers="clang-tidy $(version_of "$tidy")"
if [ "$by_reference" -gt 0 ]; then readers+=", $by_reference of them (RapidJSON's) with $(version_of "$reference_tidy")"; fi
echo "tidy-windows: clang-tidy found nothing in the ${#files[@]} source files of src/, tools/, bench/ and" \
     "tests/ as the win64 build compiles them, ${#readings[@]} readings with the timeline build's ($readers;" \
     "$read_now read now, $((${#readings[@]} - read_now)) unchanged since they passed) in $((SECONDS - started)) s"
