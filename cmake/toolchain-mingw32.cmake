# The shipped build: 32-bit Windows executables (PE32).
set(KORVA_MINGW_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw.cmake)
