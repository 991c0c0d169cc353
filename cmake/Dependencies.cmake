# Third-party headers (Debian packages) reach the compiler through a build-local folder of symlinks,
# added with -isystem: the cross build must never see /usr/include itself.
set(KORVA_THIRDPARTY_INCLUDE ${CMAKE_BINARY_DIR}/thirdparty-include)
file(MAKE_DIRECTORY ${KORVA_THIRDPARTY_INCLUDE})
foreach(lib spdlog fmt rapidjson)
  if(NOT EXISTS /usr/include/${lib})
    message(FATAL_ERROR "/usr/include/${lib} is missing: run scripts/bootstrap.sh")
  endif()
  if(NOT EXISTS ${KORVA_THIRDPARTY_INCLUDE}/${lib})
    file(CREATE_LINK /usr/include/${lib} ${KORVA_THIRDPARTY_INCLUDE}/${lib} SYMBOLIC)
  endif()
endforeach()

add_library(korva_thirdparty INTERFACE)
target_include_directories(korva_thirdparty SYSTEM INTERFACE ${KORVA_THIRDPARTY_INCLUDE})
# SPDLOG_NO_TLS: spdlog reads the thread id with GetCurrentThreadId on each record instead of caching
# it in a thread_local, which mingw-w64 emulates with a lookup that costs more than the call. Set for
# every user of spdlog alike, so no two translation units see different inline bodies.
target_compile_definitions(korva_thirdparty INTERFACE
  SPDLOG_FMT_EXTERNAL SPDLOG_NO_TLS FMT_HEADER_ONLY FMT_STATIC_THOUSANDS_SEPARATOR=',')

# GoogleTest from its Debian source package, built here for each target.
if(NOT EXISTS /usr/src/googletest/CMakeLists.txt)
  message(FATAL_ERROR "/usr/src/googletest is missing: run scripts/bootstrap.sh")
endif()
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
