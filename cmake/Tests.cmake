# Tests. Core tests run on both targets (natively under sanitizers, and under Wine); the Wine tests
# drive the shell against the prefix's real registry, service control manager and processes.
file(GLOB KORVA_CORE_TEST_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/*/core/*_test.cpp)
add_executable(korva_core_tests ${KORVA_CORE_TEST_SOURCES})
target_link_libraries(korva_core_tests PRIVATE korva_core GTest::gmock GTest::gtest_main)
korva_our_code(korva_core_tests)

if(NOT WIN32)
  add_test(NAME core COMMAND korva_core_tests)
  set_tests_properties(core PROPERTIES TIMEOUT 120)
  return()
endif()

# Every Windows test program runs through this build's own Wine prefix.
set(KORVA_WINE_EXEC ${PROJECT_SOURCE_DIR}/scripts/wine-exec.sh --gtest ${CMAKE_BINARY_DIR})

add_test(NAME wine.prefix.start COMMAND ${PROJECT_SOURCE_DIR}/scripts/wine-prefix.sh start ${CMAKE_BINARY_DIR})
add_test(NAME wine.prefix.stop COMMAND ${PROJECT_SOURCE_DIR}/scripts/wine-prefix.sh stop ${CMAKE_BINARY_DIR})
set_tests_properties(wine.prefix.start PROPERTIES FIXTURES_SETUP wine TIMEOUT 180 RESOURCE_LOCK wineprefix)
set_tests_properties(wine.prefix.stop PROPERTIES FIXTURES_CLEANUP wine TIMEOUT 60 RESOURCE_LOCK wineprefix)

# korva_wine_test(<name> TIMEOUT <s> COMMAND <exe-target> [args...])
function(korva_wine_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "COMMAND" ${ARGN})
  list(POP_FRONT T_COMMAND exe)
  add_test(NAME ${name} COMMAND ${KORVA_WINE_EXEC} $<TARGET_FILE:${exe}> ${T_COMMAND})
  # The tests share the prefix's registry and service manager, so they take turns.
  set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED wine RESOURCE_LOCK wineprefix
                       TIMEOUT ${T_TIMEOUT})
endfunction()

korva_wine_test(core.wine TIMEOUT 120 COMMAND korva_core_tests)

# Shared test support (temporary folders, registry cleaning, file reading, the stand-in's journal).
file(GLOB KORVA_TEST_SUPPORT_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/support/*.cpp)
add_library(korva_test_support STATIC ${KORVA_TEST_SUPPORT_SOURCES})
target_include_directories(korva_test_support PUBLIC ${PROJECT_SOURCE_DIR}/tests)
target_link_libraries(korva_test_support PUBLIC korva_shell GTest::gmock GTest::gtest)
korva_our_code(korva_test_support)

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
  # The service and the stand-in programs must be built before any test can use them.
  add_dependencies(korva_${sub}_tests korvaAgentService)
  foreach(tool korvaStandIn ClientAuthHandler ClientAuthHandlerDependent pipeserver-signed)
    if(TARGET ${tool})
      add_dependencies(korva_${sub}_tests ${tool})
    endif()
  endforeach()
  set(timeout 300)
  if(EXISTS ${dir}/TIMEOUT)
    file(READ ${dir}/TIMEOUT timeout)
    string(STRIP "${timeout}" timeout)
  endif()
  korva_wine_test(${sub} TIMEOUT ${timeout} COMMAND korva_${sub}_tests)
endforeach()

# The installer: a silent install and removal through Wine's msiexec.
add_test(NAME package.msi COMMAND ${PROJECT_SOURCE_DIR}/tests/package/msi_test.sh ${CMAKE_BINARY_DIR} ${KORVA_MSI})
set_tests_properties(package.msi PROPERTIES FIXTURES_REQUIRED wine RESOURCE_LOCK wineprefix TIMEOUT 240)
