#!/usr/bin/env bash
# Static checks: the layout of every source file outside tests/ against .clang-format, and
# clang-tidy (the checks .clang-tidy names, warnings as errors) over the pure core with the host
# build's compile commands.
# Usage: scripts/static-checks.sh   (after the host build: cmake --preset host && cmake --build --preset host)
set -euo pipefail
cd "$(dirname "$0")/.."
# Test code keeps its hand-made tables (tests/.clang-format turns formatting off there).
mapfile -t sources < <(git ls-files 'src/*.cpp' 'src/*.h' 'tools/*.cpp' 'tools/*.h' 'fuzz/*.cpp' 'fuzz/*.h' 'bench/*.cpp')
clang-format --dry-run -Werror "${sources[@]}"
echo "static-checks: ${#sources[@]} files laid out as .clang-format says"
mapfile -t core < <(git ls-files 'src/*/core/*.cpp')
# Two at a time: the machine has two cores.
printf '%s\n' "${core[@]}" | xargs -P 2 -n 4 clang-tidy -p build/host --quiet 2>/dev/null
echo "static-checks: clang-tidy found nothing in ${#core[@]} core files and their headers"
