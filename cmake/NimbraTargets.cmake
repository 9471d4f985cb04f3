# What every target of this project is compiled and linked with.

include_guard(GLOBAL)

# Warnings, and the settings that make a Windows binary stand on its own and rebuild identically.
function(nimbra_target_defaults target)
  if(MSVC)
    target_compile_options(${target} PRIVATE /W4 /permissive- /utf-8 /EHsc)
    if(NIMBRA_WARNINGS_AS_ERRORS)
      target_compile_options(${target} PRIVATE /WX)
    endif()
  else()
    # Not -Wnon-virtual-dtor: COM interfaces have no destructor. -Wall has the check of the delete.
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow
      -Wundef -Wformat=2 $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>)
    if(NIMBRA_WARNINGS_AS_ERRORS)
      target_compile_options(${target} PRIVATE -Werror)
    endif()
    target_compile_options(${target} PRIVATE "-ffile-prefix-map=${CMAKE_SOURCE_DIR}=.")
  endif()
  if(WIN32)
    target_compile_definitions(${target} PRIVATE UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN
      WINVER=0x0A00 _WIN32_WINNT=0x0A00 NTDDI_VERSION=0x0A000006)
    if(MINGW)
      target_link_options(${target} PRIVATE -static -Wl,--no-insert-timestamp
        $<$<CONFIG:Release>:-s>)
    endif()
  endif()
endfunction()

# The manifest that a host program needs: without `supportedOS` Windows reports an older version and
# the library's gate stays closed.
function(nimbra_add_host_manifest target)
  target_sources(${target} PRIVATE "${CMAKE_SOURCE_DIR}/cmake/host-manifest.rc")
endfunction()
