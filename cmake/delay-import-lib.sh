#!/bin/sh
# Makes a delay-load import library for one system DLL from mingw-w64's ordinary import library:
# every symbol that library imports becomes an export of a .def file, which dlltool turns into a
# library whose calls load the DLL at their first use instead of at process start.
# Usage: delay-import-lib.sh NM DLLTOOL IMPORT_LIB DLL_NAME OUTPUT
set -eu
nm=$1 dlltool=$2 implib=$3 dll=$4 out=$5
symbols=$("$nm" "$implib")
# i686 names carry a leading underscore, and stdcall names their "@<bytes>", which --kill-at
# drops from the name imported at run time.
case "$symbols" in
  *" I __imp__"*) underscore=_ kill_at=--kill-at ;;
  *) underscore= kill_at= ;;
esac
# "I __imp_<name>" is an import; a "T <name>" beside it makes it a function, else it is data.
{
  echo "LIBRARY $dll"
  echo "EXPORTS"
  echo "$symbols" | awk -v u="$underscore" '
    $2 == "I" && $3 ~ /^__imp_/ { imported[substr($3, 7)] = 1 }
    $2 == "T" { functions[$3] = 1 }
    END {
      for (name in imported) {
        export = name
        if (u != "") sub(/^_/, "", export)
        print export (name in functions ? "" : " DATA")
      }
    }' | sort
} > "$out.def"
"$dlltool" --input-def "$out.def" --output-delaylib "$out" --dllname "$dll" $kill_at
