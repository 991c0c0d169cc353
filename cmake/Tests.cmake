# Tests. Core tests run on both targets (natively under sanitizers, and under Wine); the Wine tests
# drive the shell against the prefix's real registry, service control manager and processes.
file(GLOB KORVA_CORE_TEST_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/*/core/*_test.cpp)
add_executable(korva_core_tests ${KORVA_CORE_TEST_SOURCES})
target_link_libraries(korva_core_tests PRIVATE korva_core GTest::gmock GTest::gtest_main)
target_include_directories(korva_core_tests PRIVATE ${PROJECT_SOURCE_DIR}/tests)  # support/nested.h
korva_our_code(korva_core_tests)

if(NOT WIN32)
  add_test(NAME core COMMAND korva_core_tests)
  set_tests_properties(core PROPERTIES TIMEOUT 120)
  return()
endif()

# The Windows builds compile test code (the test programs, their support library and GoogleTest)
# unoptimised: the code under test is the product's own libraries, built as shipped, and a test body
# at -O2 -g costs two to three times the compile time for no gain, as its time goes to waiting on
# Wine. Debug information is kept for a crash under gdb.
set(KORVA_TEST_CODE_OPTIONS -O0)
foreach(lib gtest gtest_main gmock gmock_main)
  target_compile_options(${lib} PRIVATE ${KORVA_TEST_CODE_OPTIONS})
endforeach()
target_compile_options(korva_core_tests PRIVATE ${KORVA_TEST_CODE_OPTIONS})

# Every Windows test program runs through a Wine prefix of this build. The tests of one prefix share
# its registry and service manager, so they take turns; each lane has a prefix of its own
# (KORVA_WINE_LANE, see scripts/wine-env.sh), so lanes run side by side (`ctest -j`). The main lane
# uses the build's own prefix, so a test program run by hand sees what its suite saw.
set(KORVA_WINE_EXEC ${PROJECT_SOURCE_DIR}/scripts/wine-exec.sh --gtest ${CMAKE_BINARY_DIR})
# The end-to-end suite waits more than it works (each stop of the service under Wine ends with a
# 20 s wait): it runs as this many shards, each in a lane of its own.
set(KORVA_E2E_SHARDS 6)
# The one end-to-end test that waits out two setup programs' whole minute each runs in a lane of its
# own (e2e.long), so that no shard takes two minutes longer than the others.
set(KORVA_E2E_LONG_TEST OutsideFaultTest.AFloodingSetupProgramIsEndedAtItsLimitAndTheServiceReachesRunning)

# Defines the prefix start and stop of `lane` ("" for the main lane) once.
function(korva_wine_lane lane)
  set(suffix "")
  if(lane)
    set(suffix ".${lane}")
  endif()
  if(TEST wine.prefix.start${suffix})
    return()
  endif()
  add_test(NAME wine.prefix.start${suffix} COMMAND ${PROJECT_SOURCE_DIR}/scripts/wine-prefix.sh start ${CMAKE_BINARY_DIR})
  add_test(NAME wine.prefix.stop${suffix} COMMAND ${PROJECT_SOURCE_DIR}/scripts/wine-prefix.sh stop ${CMAKE_BINARY_DIR})
  set_tests_properties(wine.prefix.start${suffix} PROPERTIES FIXTURES_SETUP wine${suffix} TIMEOUT 180
                       RESOURCE_LOCK wineprefix${suffix} ENVIRONMENT "KORVA_WINE_LANE=${lane}")
  set_tests_properties(wine.prefix.stop${suffix} PROPERTIES FIXTURES_CLEANUP wine${suffix} TIMEOUT 60
                       RESOURCE_LOCK wineprefix${suffix} ENVIRONMENT "KORVA_WINE_LANE=${lane}")
endfunction()

# korva_wine_lane_test(<name> LANE <lane> TIMEOUT <s> [ENVIRONMENT <var=value>...] COMMAND <program> [args...])
function(korva_wine_lane_test name)
  cmake_parse_arguments(T "" "LANE;TIMEOUT" "ENVIRONMENT;COMMAND" ${ARGN})
  korva_wine_lane("${T_LANE}")
  set(suffix "")
  if(T_LANE)
    set(suffix ".${T_LANE}")
  endif()
  add_test(NAME ${name} COMMAND ${T_COMMAND})
  set(environment "KORVA_WINE_LANE=${T_LANE}" ${T_ENVIRONMENT})
  set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED wine${suffix} RESOURCE_LOCK wineprefix${suffix}
                       TIMEOUT ${T_TIMEOUT} ENVIRONMENT "${environment}")
endfunction()

# korva_wine_test(<name> TIMEOUT <s> COMMAND <exe-target> [args...]): a test program of the main lane.
function(korva_wine_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "COMMAND" ${ARGN})
  list(POP_FRONT T_COMMAND exe)
  korva_wine_lane_test(${name} LANE "" TIMEOUT ${T_TIMEOUT}
                       COMMAND ${KORVA_WINE_EXEC} $<TARGET_FILE:${exe}> ${T_COMMAND})
endfunction()

korva_wine_test(core.wine TIMEOUT 120 COMMAND korva_core_tests)

# Shared test support (temporary folders, registry cleaning, file reading, the stand-in's journal).
file(GLOB KORVA_TEST_SUPPORT_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/support/*.cpp)
add_library(korva_test_support STATIC ${KORVA_TEST_SUPPORT_SOURCES})
target_include_directories(korva_test_support PUBLIC ${PROJECT_SOURCE_DIR}/tests)
target_link_libraries(korva_test_support PUBLIC korva_shell GTest::gmock GTest::gtest)
korva_our_code(korva_test_support)
target_compile_options(korva_test_support PRIVATE ${KORVA_TEST_CODE_OPTIONS})
target_precompile_headers(korva_test_support PRIVATE <windows.h> <gtest/gtest.h> <string> <vector> <functional>
                          <optional> <memory> <atomic>)

# One test program per subsystem folder of tests/ (its *_test.cpp files), run as one Wine test.
file(GLOB KORVA_TEST_DIRS LIST_DIRECTORIES true ${PROJECT_SOURCE_DIR}/tests/*)
foreach(dir ${KORVA_TEST_DIRS})
  get_filename_component(sub ${dir} NAME)
  if(NOT IS_DIRECTORY ${dir} OR sub STREQUAL "support")
    continue()
  endif()
  file(GLOB sources CONFIGURE_DEPENDS ${dir}/*.cpp)
  if(NOT sources)
    continue()
  endif()
  add_executable(korva_${sub}_tests ${sources})
  target_link_libraries(korva_${sub}_tests PRIVATE korva_test_support GTest::gtest_main)
  korva_our_code(korva_${sub}_tests)
  target_compile_options(korva_${sub}_tests PRIVATE ${KORVA_TEST_CODE_OPTIONS})
  target_precompile_headers(korva_${sub}_tests REUSE_FROM korva_test_support)
  # The service and the stand-in programs must be built before any test can use them.
  add_dependencies(korva_${sub}_tests korvaAgentService korvaAgentServiceQuickSetup)
  foreach(tool korvaStandIn ClientAuthHandler ClientAuthHandlerImporting pipeserver-signed)
    if(TARGET ${tool})
      add_dependencies(korva_${sub}_tests ${tool})
    endif()
  endforeach()
  set(timeout 300)
  if(EXISTS ${dir}/TIMEOUT)
    file(READ ${dir}/TIMEOUT timeout)
    string(STRIP "${timeout}" timeout)
  endif()
  if(sub STREQUAL "e2e")
    math(EXPR last "${KORVA_E2E_SHARDS} - 1")
    foreach(shard RANGE ${last})
      korva_wine_lane_test(e2e.${shard} LANE e2e${shard} TIMEOUT ${timeout}
                           ENVIRONMENT GTEST_TOTAL_SHARDS=${KORVA_E2E_SHARDS} GTEST_SHARD_INDEX=${shard}
                                       KORVA_GTEST_EXCLUDE=${KORVA_E2E_LONG_TEST}
                           COMMAND ${KORVA_WINE_EXEC} $<TARGET_FILE:korva_${sub}_tests>)
    endforeach()
    korva_wine_lane_test(e2e.long LANE e2elong TIMEOUT ${timeout} ENVIRONMENT KORVA_GTEST_ONLY=${KORVA_E2E_LONG_TEST}
                         COMMAND ${KORVA_WINE_EXEC} $<TARGET_FILE:korva_${sub}_tests>)
    # The longest lane starts first, also where ctest has no timings of earlier runs (a fresh clone).
    set_tests_properties(e2e.long PROPERTIES COST 1000)
  elseif(sub STREQUAL "process")
    # The suite's one real minute runs beside the others.
    korva_wine_lane_test(${sub} LANE process TIMEOUT ${timeout}
                         COMMAND ${KORVA_WINE_EXEC} $<TARGET_FILE:korva_${sub}_tests>)
  else()
    korva_wine_test(${sub} TIMEOUT ${timeout} COMMAND korva_${sub}_tests)
  endif()
endforeach()
# The service's tests look up each delay-loaded DLL by name, as the delay-load helper does, and
# plant copies of them beside the executable.
list(TRANSFORM KORVA_DELAY_LOADED_DLLS APPEND ".dll" OUTPUT_VARIABLE KORVA_DELAY_LOADED_DLL_FILES)
list(JOIN KORVA_DELAY_LOADED_DLL_FILES "," KORVA_DELAY_LOADED_DLL_FILES)
foreach(program korva_service_tests korva_e2e_tests)
  target_compile_definitions(${program} PRIVATE KORVA_DELAY_LOADED_DLLS="${KORVA_DELAY_LOADED_DLL_FILES}")
endforeach()

# The installer: a silent install, a second package of the same version and the other platform's
# package refused, an upgrade, a refused downgrade and a removal through Wine's msiexec.
korva_wine_lane_test(package.msi LANE package TIMEOUT 240
                     COMMAND ${PROJECT_SOURCE_DIR}/tests/package/msi_test.sh ${CMAKE_BINARY_DIR} ${KORVA_MSI}
                             ${KORVA_SAME_MSI} ${KORVA_NEXT_MSI})
# Release signing: package.sh signs with a test certificate; the installed executable is trusted.
get_filename_component(KORVA_PRESET_NAME ${CMAKE_BINARY_DIR} NAME)
korva_wine_lane_test(package.signing LANE package TIMEOUT 240
                     COMMAND ${PROJECT_SOURCE_DIR}/tests/package/signing_test.sh ${CMAKE_BINARY_DIR}
                             ${KORVA_PRESET_NAME})
