# Sourced by the wine scripts: the environment every Wine call of a build uses.
# $1: the build folder; its prefix lives in <build>/wineprefix.
korva_wine_env() {
  local build
  build=$(cd "$1" && pwd)
  export WINEPREFIX="$build/wineprefix"
  export WINEARCH=win64
  export WINEDEBUG=-all
  export WINEDLLOVERRIDES="mscoree,mshtml="
  export DISPLAY=
}
