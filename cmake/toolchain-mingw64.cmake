# The second build of the same source: 64-bit Windows executables (PE32+).
set(KORVA_MINGW_PROCESSOR x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw.cmake)
