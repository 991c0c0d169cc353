# The Windows side: the service's shell library, the executable, and the test-only tools.
enable_language(RC)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

# System DLLs loaded at their first call rather than before main: the ones the start-up does not
# need before it reports RUNNING, and user32 and ole32, which it needs only at its last steps and
# loads on a thread of its own while the dispatcher connects (win/dll_preload.h). iphlpapi and
# netapi32 (the machine details) are not among Windows' known DLLs: imported statically, they would
# be looked for beside the executable first, before main narrows the DLL search to the system
# folder (win/dll_search.h). What stays imported statically is known DLLs only.
set(KORVA_DELAY_LOADED_DLLS user32 ole32 oleaut32 crypt32 wintrust setupapi userenv wtsapi32 iphlpapi netapi32)
set(KORVA_DELAY_LIBS delayimp)
foreach(dll ${KORVA_DELAY_LOADED_DLLS})
  find_library(KORVA_IMPORT_LIB_${dll} NAMES ${dll} REQUIRED NO_CACHE)
  set(delaylib ${CMAKE_BINARY_DIR}/delayimp/lib${dll}_delay.a)
  if(NOT EXISTS ${delaylib} OR ${KORVA_IMPORT_LIB_${dll}} IS_NEWER_THAN ${delaylib}
     OR ${PROJECT_SOURCE_DIR}/cmake/delay-import-lib.sh IS_NEWER_THAN ${delaylib})
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/delayimp)
    execute_process(COMMAND sh ${PROJECT_SOURCE_DIR}/cmake/delay-import-lib.sh ${CMAKE_NM} ${CMAKE_DLLTOOL}
                            ${KORVA_IMPORT_LIB_${dll}} ${dll}.dll ${delaylib}
                    COMMAND_ERROR_IS_FATAL ANY)
  endif()
  list(PREPEND KORVA_DELAY_LIBS ${delaylib})
endforeach()
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # With binutils' i386 delay-import libraries a call through "__imp_<name>" (what a dllimport
  # declaration compiles to) jumps to address 0: the slot points at the library's loading stub,
  # which the linker leaves out unless something calls "<name>" itself. Plain calls link it.
  add_compile_definitions(DECLSPEC_IMPORT=)
endif()

set(KORVA_WIN32_LIBS ${KORVA_DELAY_LIBS} advapi32 kernel32 shell32 wbemuuid
    ws2_32 cfgmgr32 version shlwapi)

# Everything of src/ but the pure core and the process entry point.
file(GLOB_RECURSE KORVA_SHELL_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*.cpp)
list(FILTER KORVA_SHELL_SOURCES EXCLUDE REGEX "/src/[^/]+/core/")
list(FILTER KORVA_SHELL_SOURCES EXCLUDE REGEX "/src/service/main\\.cpp$")
add_library(korva_shell STATIC ${KORVA_SHELL_SOURCES})
target_link_libraries(korva_shell PUBLIC korva_core ${KORVA_WIN32_LIBS})
korva_our_code(korva_shell)
# <windows.h> and the standard headers most of the shell reads, parsed once per build.
target_precompile_headers(korva_shell PRIVATE <windows.h> <string> <vector> <atomic> <mutex> <memory> <optional>
                          <algorithm> <cstring>)

# The executable's version resource says the project's version: a generated header per version,
# in a folder of its own that the resource compiler searches.
function(korva_version_header folder major minor patch)
  set(KORVA_RC_MAJOR ${major})
  set(KORVA_RC_MINOR ${minor})
  set(KORVA_RC_PATCH ${patch})
  configure_file(${PROJECT_SOURCE_DIR}/src/service/resources/korva_version.h.in ${folder}/korva_version.h @ONLY)
endfunction()

# korva_agent_executable(<target> <version-header-folder>)
function(korva_agent_executable target versionFolder)
  add_executable(${target}
    ${PROJECT_SOURCE_DIR}/src/service/main.cpp
    ${PROJECT_SOURCE_DIR}/src/service/resources/korvaAgentService.rc)
  target_include_directories(${target} PRIVATE ${versionFolder})
  target_link_libraries(${target} PRIVATE korva_shell)
  # Sections at page boundaries in the file too. Wine reads an image whose sections are not into
  # private memory whole, all of it resident for the life of the service; a page-aligned one it
  # maps, and only the pages the service runs become resident. Windows maps either kind.
  target_link_options(${target} PRIVATE -Wl,--file-alignment,0x1000)
  korva_our_code(${target})
endfunction()

korva_version_header(${CMAKE_BINARY_DIR}/version ${PROJECT_VERSION_MAJOR} ${PROJECT_VERSION_MINOR}
                     ${PROJECT_VERSION_PATCH})
korva_agent_executable(korvaAgentService ${CMAKE_BINARY_DIR}/version)
# Shipped stripped: the debug information goes to korvaAgentService.exe.debug beside it, which the
# executable names in its .gnu_debuglink section so that gdb (and winedbg) find it there.
add_custom_command(TARGET korvaAgentService POST_BUILD
  COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:korvaAgentService> $<TARGET_FILE:korvaAgentService>.debug
  COMMAND ${CMAKE_OBJCOPY} --strip-debug --strip-unneeded
          --add-gnu-debuglink=$<TARGET_FILE:korvaAgentService>.debug $<TARGET_FILE:korvaAgentService>
  WORKING_DIRECTORY $<TARGET_FILE_DIR:korvaAgentService>
  VERBATIM)

# The installer of each build (x86 for the PE32, x64 for the PE32+), built by Debian's wixl through
# scripts/build-msi.sh, which refuses a package wixl warned about (an attribute it ignored) and sets
# with msibuild what wixl cannot write (the service's Vital bit, its access list, the executable's file version).
find_program(KORVA_WIXL wixl REQUIRED)
find_program(KORVA_MSIBUILD msibuild REQUIRED)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(KORVA_MSI_ARCH x64)
else()
  set(KORVA_MSI_ARCH x86)
endif()
set(KORVA_MSI ${CMAKE_BINARY_DIR}/korvaAgentService-${KORVA_MSI_ARCH}.msi)
# korva_msi_package(<msi> <executable-target> <version>)
function(korva_msi_package msi exe version)
  get_filename_component(folder ${msi} DIRECTORY)
  add_custom_command(OUTPUT ${msi}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${folder}
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/build-msi.sh ${KORVA_MSI_ARCH} ${version} $<TARGET_FILE:${exe}> ${msi}
    DEPENDS ${exe} ${PROJECT_SOURCE_DIR}/packaging/korvaAgentService.wxs ${PROJECT_SOURCE_DIR}/scripts/build-msi.sh
            ${PROJECT_SOURCE_DIR}/src/service/core/service_status_rules.h
            ${PROJECT_SOURCE_DIR}/scripts/wixl-checked.sh
    COMMENT "Building ${msi}"
    VERBATIM)
endfunction()
korva_msi_package(${KORVA_MSI} korvaAgentService ${PROJECT_VERSION})
add_custom_target(korva_msi ALL DEPENDS ${KORVA_MSI})

# For the installer's tests only, in a folder of their own away from the package above, never
# shipped: the same agent one patch version newer and its package (the upgrade), and a second
# package of this very version, which has a product code of its own (the replaced same version).
set(KORVA_TEST_PACKAGES ${CMAKE_BINARY_DIR}/test-packages)
math(EXPR KORVA_NEXT_PATCH "${PROJECT_VERSION_PATCH} + 1")
set(KORVA_NEXT_VERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}.${KORVA_NEXT_PATCH})
korva_version_header(${CMAKE_BINARY_DIR}/version-next ${PROJECT_VERSION_MAJOR} ${PROJECT_VERSION_MINOR}
                     ${KORVA_NEXT_PATCH})
korva_agent_executable(korvaAgentServiceNext ${CMAKE_BINARY_DIR}/version-next)
set(KORVA_NEXT_MSI ${KORVA_TEST_PACKAGES}/korvaAgentService-${KORVA_MSI_ARCH}-next-test.msi)
korva_msi_package(${KORVA_NEXT_MSI} korvaAgentServiceNext ${KORVA_NEXT_VERSION})
set(KORVA_SAME_MSI ${KORVA_TEST_PACKAGES}/korvaAgentService-${KORVA_MSI_ARCH}-same-test.msi)
korva_msi_package(${KORVA_SAME_MSI} korvaAgentService ${PROJECT_VERSION})
add_custom_target(korva_msi_tests ALL DEPENDS ${KORVA_NEXT_MSI} ${KORVA_SAME_MSI})

# For the end-to-end test of a setup program that never ends only: the agent whose setup programs
# may run 1 minute instead of 5 (its own copy of the driver installation, linked ahead of the
# library's). Never shipped.
korva_agent_executable(korvaAgentServiceQuickSetup ${CMAKE_BINARY_DIR}/version)
target_sources(korvaAgentServiceQuickSetup PRIVATE ${PROJECT_SOURCE_DIR}/src/fileaudit/driver_installation.cpp)
target_compile_definitions(korvaAgentServiceQuickSetup PRIVATE KORVA_SETUP_WAIT_MINUTES=1)

# Test-only programs: one folder each under tools/.
file(GLOB KORVA_TOOL_DIRS LIST_DIRECTORIES true ${PROJECT_SOURCE_DIR}/tools/*)
foreach(dir ${KORVA_TOOL_DIRS})
  if(IS_DIRECTORY ${dir} AND EXISTS ${dir}/CMakeLists.txt)
    add_subdirectory(${dir})
  endif()
endforeach()
