#!/usr/bin/env bash
# Static checks: every include between the folders of src/ against the include table of README.md
# (its "Layout" section), the layout of every source file outside tests/ against .clang-format, and
# clang-tidy (the checks .clang-tidy names, warnings as errors) in two passes: the fuzz targets with
# their build's compile commands, and every source file of src/ (the pure core with every check),
# tools/, bench/ and tests/ as the Windows build compiles it (scripts/tidy-windows.sh, the win64
# build's compile commands, and the timeline build's define for the files that hold its marks). Test
# code is read by that Windows pass, with the few exceptions tests/.clang-tidy makes for it.
# Usage: scripts/static-checks.sh [--without-windows-pass]
#   (after the host build: cmake --preset host && cmake --build --preset host; the Windows pass
#   configures build/win64 when it has no compile commands yet)
#   --without-windows-pass  leaves the Windows pass out, for a caller that runs it beside other work
#                           (scripts/test.sh)
set -euo pipefail
cd "$(dirname "$0")/.."

windows_pass=1
case "${1:-}" in
  "") ;;
  --without-windows-pass) windows_pass=0 ;;
  *) echo "usage: $0 [--without-windows-pass]" >&2; exit 2 ;;
esac

# The include table: after its header row "| Folder | May include |", one row per folder of src/,
# "| `folder/` | `other/`, `another/` |" or "| `folder/` | nothing |". A folder may always include
# its own headers, those of its core/ among them.
declare -A allowed=()
table_edges=()
bad=0
row_pattern='^\|[[:space:]]*`([a-z_]+)/`[[:space:]]*\|[[:space:]]*(nothing|`[a-z_]+/`(,[[:space:]]*`[a-z_]+/`)*)[[:space:]]*\|[[:space:]]*$'
while IFS= read -r row; do
  if [[ ! $row =~ $row_pattern ]]; then
    echo "static-checks: README.md: cannot read this row of the include table: $row" >&2
    bad=1
    continue
  fi
  folder=${BASH_REMATCH[1]}
  targets=$(grep -oE '`[a-z_]+/`' <<<"${BASH_REMATCH[2]}" | tr -d '`/' | tr '\n' ' ' || true)
  [ -d "src/$folder" ] || { echo "static-checks: README.md: the include table names src/$folder/, which does not exist" >&2; bad=1; }
  allowed[$folder]=" $targets"
  for target in $targets; do table_edges+=("$folder $target"); done
done < <(awk '/^\| Folder \| May include \|/ { on = 1; next } on && /^\|---/ { next } on && /^\|/ { print; next } on { exit }' README.md)
if [ "${#allowed[@]}" -eq 0 ]; then
  echo "static-checks: README.md has no include table (| Folder | May include |)" >&2
  exit 1
fi
# The table itself must run one way: tsort refuses a circle.
if ! circle=$(printf '%s\n' "${table_edges[@]}" | tsort 2>&1 >/dev/null); then
  echo "static-checks: the include table of README.md runs in a circle: $circle" >&2
  bad=1
fi
for dir in src/*/; do
  folder=$(basename "$dir")
  if [ -z "${allowed[$folder]+set}" ]; then
    echo "static-checks: src/$folder/ has no row in the include table of README.md" >&2
    bad=1
  fi
done
# Every include, quoted or bracketed, whose first part names a folder of src/.
while IFS=: read -r file line text; do
  folder=$(cut -d/ -f2 <<<"$file")
  target=$(sed -E 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*[<"]([a-z_]+)\/.*/\1/' <<<"$text")
  [ -d "src/$target" ] && [ "$target" != "$folder" ] && [ -n "${allowed[$folder]+set}" ] || continue
  case "${allowed[$folder]} " in *" $target "*) continue ;; esac
  others=$(xargs <<<"${allowed[$folder]}")
  echo "static-checks: $file:$line includes ${text#*include } but $folder/ may include only: ${others:-nothing} (README.md, the include table)" >&2
  bad=1
done < <(git ls-files 'src/*.cpp' 'src/*.h' | xargs grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]*[<"][a-z_]+/' || true)
[ "$bad" -eq 0 ] || exit 1
echo "static-checks: every include between the folders of src/ follows the include table of README.md"
# Test code keeps its hand-made tables (tests/.clang-format turns formatting off there).
mapfile -t sources < <(git ls-files 'src/*.cpp' 'src/*.h' 'tools/*.cpp' 'tools/*.h' 'fuzz/*.cpp' 'fuzz/*.h' 'bench/*.cpp')
clang-format --dry-run -Werror "${sources[@]}"
echo "static-checks: ${#sources[@]} files laid out as .clang-format says"
# The fuzz targets, as their own build (clang, libFuzzer) compiles them; configuring it is enough.
# The pure core they call is read by the Windows pass, with every check, as the shipped build
# compiles it; the fuzz targets' reading covers the core headers they include natively too.
mapfile -t fuzz < <(git ls-files 'fuzz/*.cpp')
[ -f build/fuzz/compile_commands.json ] || cmake --preset fuzz >/dev/null
printf '%s\n' "${fuzz[@]}" | xargs -P 2 -n 4 clang-tidy -p build/fuzz --quiet 2>/dev/null
echo "static-checks: clang-tidy found nothing in the ${#fuzz[@]} fuzz targets and their headers"
[ "$windows_pass" -eq 1 ] || exit 0
[ -f build/win64/compile_commands.json ] || cmake --preset win64 >/dev/null
scripts/tidy-windows.sh
