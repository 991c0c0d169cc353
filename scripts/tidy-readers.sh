# Sourced by scripts/tidy-windows.sh: which clang-tidy reads a file and with which checks. Debian's
# default clang-tidy (14) decides which checks run; clang-tidy 22, where installed
# (scripts/bootstrap.sh), reads the files: from version 22 on, clang-tidy matches nothing inside
# system headers (<windows.h>, GoogleTest, spdlog, the C++ library), where version 14 spent four
# fifths of a file's time. Without it, version 14 reads them too, the same checks, slower.
# Run from the top folder.

reference_tidy=$(readlink -f "$(command -v clang-tidy)")
tidy=$reference_tidy
if command -v clang-tidy-22 >/dev/null; then tidy=$(readlink -f "$(command -v clang-tidy-22)"); fi

# The checks the default clang-tidy enables for a file of the folder $1 (its .clang-tidy files), but
# for the exceptions $2 (a --checks list of its own, "-name,..."), as one list.
enabled_checks() {
  local list
  list=$("$reference_tidy" --list-checks "--checks=${2:-}" "$1/any.cpp" -- 2>/dev/null |
    sed -n '2,$s/^ *//p' | grep . | paste -sd, -)
  if [ -z "$list" ]; then
    echo "tidy-readers: $reference_tidy listed no checks for $1/" >&2
    return 1
  fi
  echo "$list"
}

# Checks the newer clang-tidy knows under another name, old=new. Of the rest of version 14's list it
# lacks only cert-dcl21-cpp (withdrawn upstream), the analyzer's modelling entries, which are not
# checks of their own, and a macOS check.
renamed_checks=(clang-analyzer-valist.Uninitialized=clang-analyzer-security.VAList
                clang-analyzer-apiModeling.StdCLibraryFunctions=clang-analyzer-unix.StdCLibraryFunctions)
# The list $1 with the newer names added for the checks it holds.
with_new_names() {
  local list=$1 pair
  for pair in "${renamed_checks[@]}"; do
    case ",$list," in *",${pair%%=*},"*) list+=",${pair#*=}" ;; esac
  done
  echo "$list"
}

# The project headers a file includes, directly or through others: quoted includes, looked for
# beside the including file, under src/, tools/ and tests/ (the tests' "support/..."), and from the
# top folder, as the build's include folders have them.
project_headers() {
  local -a todo=("$1")
  local -A seen=()
  local file included candidate
  while [ "${#todo[@]}" -gt 0 ]; do
    file=${todo[-1]}
    unset 'todo[-1]'
    while IFS= read -r included; do
      for candidate in "$(dirname "$file")/$included" "src/$included" "tools/$included" "tests/$included" \
                       "$included"; do
        [ -f "$candidate" ] || continue
        candidate=$(realpath --relative-to=. "$candidate")
        if [ -z "${seen[$candidate]+set}" ]; then
          seen[$candidate]=1
          todo+=("$candidate")
        fi
        break
      done
    done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
  done
  if [ "${#seen[@]}" -gt 0 ]; then printf '%s\n' "${!seen[@]}" | sort; fi
}

# RapidJSON 1.1 (Debian's) gives GenericStringRef an assignment to a const member; GCC and clang 14
# let it pass in a template never used, clang 19 and later reject it. A file that includes RapidJSON,
# itself or through the project's headers, is therefore read by the default clang-tidy.
# True when one of the files $@ includes RapidJSON.
any_includes_rapidjson() { grep -qs '^[[:space:]]*#[[:space:]]*include[[:space:]]*<rapidjson/' "$@"; }

# The clang-tidy that reads the file $1 whose project headers are $2...
reader_of() {
  if [ "$tidy" != "$reference_tidy" ] && any_includes_rapidjson "$@"; then
    echo "$reference_tidy"
  else
    echo "$tidy"
  fi
}
