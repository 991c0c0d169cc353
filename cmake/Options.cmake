# Compiler options for our own code; third-party code keeps its own.
set(KORVA_WARNINGS -Wall -Wextra -Wpedantic -Werror)

if(KORVA_SANITIZE AND NOT WIN32)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()

if(KORVA_FUZZ AND NOT WIN32)
  # Coverage for libFuzzer in every object; the fuzz targets themselves link its driver.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=all
                      -fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/fuzz/thirdparty.ignorelist)
  add_link_options(-fsanitize=address,undefined)
endif()

if(WIN32)
  add_compile_definitions(WIN32_LEAN_AND_MEAN NOMINMAX UNICODE _UNICODE _WIN32_WINNT=0x0601 WINVER=0x0601)
  # Self-contained executables: no mingw runtime DLL beside the system's.
  add_link_options(-static -static-libgcc -static-libstdc++)
endif()

if(KORVA_STARTUP_TIMELINE)
  add_compile_definitions(KORVA_STARTUP_TIMELINE)
endif()

function(korva_our_code target)
  target_compile_options(${target} PRIVATE ${KORVA_WARNINGS})
  target_link_libraries(${target} PUBLIC korva_thirdparty)
endfunction()
