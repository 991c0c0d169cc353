# The Windows side: the service's shell library, the executable, and the test-only tools.
enable_language(RC)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

set(KORVA_WIN32_LIBS advapi32 kernel32 user32 shell32 ole32 oleaut32 wbemuuid wtsapi32 userenv
    iphlpapi ws2_32 netapi32 setupapi cfgmgr32 wintrust crypt32 version shlwapi)

# Everything of src/ but the pure core and the process entry point.
file(GLOB_RECURSE KORVA_SHELL_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*.cpp)
list(FILTER KORVA_SHELL_SOURCES EXCLUDE REGEX "/src/[^/]+/core/")
list(FILTER KORVA_SHELL_SOURCES EXCLUDE REGEX "/src/service/main\\.cpp$")
add_library(korva_shell STATIC ${KORVA_SHELL_SOURCES})
target_link_libraries(korva_shell PUBLIC korva_core ${KORVA_WIN32_LIBS})
korva_our_code(korva_shell)

add_executable(korvaAgentService
  ${PROJECT_SOURCE_DIR}/src/service/main.cpp
  ${PROJECT_SOURCE_DIR}/src/service/resources/korvaAgentService.rc)
target_link_libraries(korvaAgentService PRIVATE korva_shell)
korva_our_code(korvaAgentService)
# Shipped stripped: the debug information goes to korvaAgentService.exe.debug beside it, which the
# executable names in its .gnu_debuglink section so that gdb (and winedbg) find it there.
add_custom_command(TARGET korvaAgentService POST_BUILD
  COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:korvaAgentService> $<TARGET_FILE:korvaAgentService>.debug
  COMMAND ${CMAKE_OBJCOPY} --strip-debug --strip-unneeded
          --add-gnu-debuglink=$<TARGET_FILE:korvaAgentService>.debug $<TARGET_FILE:korvaAgentService>
  WORKING_DIRECTORY $<TARGET_FILE_DIR:korvaAgentService>
  VERBATIM)

# The installer of each build (x86 for the PE32, x64 for the PE32+), built by Debian's wixl.
find_program(KORVA_WIXL wixl REQUIRED)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(KORVA_MSI_ARCH x64)
else()
  set(KORVA_MSI_ARCH x86)
endif()
set(KORVA_MSI ${CMAKE_BINARY_DIR}/korvaAgentService-${KORVA_MSI_ARCH}.msi)
# wixl finds a source file only by a path relative to its working folder.
add_custom_command(OUTPUT ${KORVA_MSI}
  COMMAND ${KORVA_WIXL} -a ${KORVA_MSI_ARCH} -D Platform=${KORVA_MSI_ARCH} -D Exe=bin/korvaAgentService.exe
          -o ${KORVA_MSI} ${PROJECT_SOURCE_DIR}/packaging/korvaAgentService.wxs
  DEPENDS korvaAgentService ${PROJECT_SOURCE_DIR}/packaging/korvaAgentService.wxs
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  COMMENT "Building ${KORVA_MSI}"
  VERBATIM)
add_custom_target(korva_msi ALL DEPENDS ${KORVA_MSI})

# Test-only programs: one folder each under tools/.
file(GLOB KORVA_TOOL_DIRS LIST_DIRECTORIES true ${PROJECT_SOURCE_DIR}/tools/*)
foreach(dir ${KORVA_TOOL_DIRS})
  if(IS_DIRECTORY ${dir} AND EXISTS ${dir}/CMakeLists.txt)
    add_subdirectory(${dir})
  endif()
endforeach()
