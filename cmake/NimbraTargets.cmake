# What every target of this project is compiled and linked with.

include_guard(GLOBAL)

option(NIMBRA_CHECKED "Find mistakes with memory and undefined behaviour while running (MinGW)" OFF)
option(NIMBRA_COVERAGE "Count which lines of the library run (MinGW)" OFF)

if(MINGW AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  enable_language(ASM)
  # lld's front for MinGW does not know --push-state, which CMake would use.
  set(CMAKE_CXX_LINK_LIBRARY_USING_WHOLE_ARCHIVE
    LINKER:--whole-archive <LINK_ITEM> LINKER:--no-whole-archive)
  set(CMAKE_CXX_LINK_LIBRARY_USING_WHOLE_ARCHIVE_SUPPORTED TRUE)
endif()

# A build whose programs end at the first mistake: every block of memory between pages that cannot
# be touched (tests/guard-heap), and undefined behaviour as a trap, as there is no sanitizer runtime
# for this platform. Without -fno-allocation-dce the compiler removes pairs of new and delete that
# nothing comes between, and -fno-tree-bit-ccp keeps it from taking all blocks for aligned to 16.
function(nimbra_target_checks target)
  target_compile_options(${target} PRIVATE -fsanitize=undefined -fsanitize-undefined-trap-on-error
    -fno-allocation-dce -fno-tree-bit-ccp -fno-omit-frame-pointer)
  target_compile_definitions(${target} PRIVATE NIMBRA_CHECKED=1)
  get_target_property(type ${target} TYPE)
  if(type MATCHES "EXECUTABLE|SHARED_LIBRARY")
    target_sources(${target} PRIVATE "$<TARGET_OBJECTS:nimbra_guard_heap>")
  endif()
endfunction()

# Lines of `target` are counted; what it is linked into writes the counts when it ends.
function(nimbra_target_coverage target)
  # The last map is the one that counts: the sources are looked for where they are.
  target_compile_options(${target} PRIVATE -O0 --coverage -fprofile-update=atomic
    -fprofile-abs-path "-fprofile-prefix-map=${CMAKE_SOURCE_DIR}=${CMAKE_SOURCE_DIR}")
  target_link_options(${target} PUBLIC --coverage)
endfunction()

# Warnings, and the settings that make a Windows binary stand on its own and rebuild identically.
function(nimbra_target_defaults target)
  nimbra_target_basics(${target})
  if(NIMBRA_CHECKED)
    nimbra_target_checks(${target})
  endif()
  get_target_property(folder ${target} SOURCE_DIR)
  if(NIMBRA_COVERAGE AND folder STREQUAL "${CMAKE_SOURCE_DIR}/lib/cloud-filter")
    nimbra_target_coverage(${target})
  endif()
endfunction()

# The defaults without what finds mistakes in the target.
function(nimbra_target_basics target)
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
        $<$<AND:$<CONFIG:Release>,$<NOT:$<BOOL:$<TARGET_PROPERTY:NIMBRA_KEEPS_SYMBOLS>>>>:-s>)
      nimbra_target_protections(${target})
      nimbra_target_symbols(${target})
    endif()
  endif()
endfunction()

# What Windows does to keep an attacker who found a mistake from using it, as far as the compiler and
# the linker have to know: addresses that cannot be guessed, indirect calls to permitted targets only
# (Control Flow Guard), returns that a shadow stack checks (CET). See docs/building.md.
function(nimbra_target_protections target)
  target_link_options(${target} PRIVATE -Wl,--high-entropy-va,--dynamicbase,--nxcompat)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # GNU ld would derive the address from the path of its output.
    target_link_options(${target} PRIVATE -Wl,--disable-auto-image-base)
    return()
  endif()
  target_compile_options(${target} PRIVATE -mguard=cf)
  target_link_options(${target} PRIVATE -Wl,--guard-cf -Wl,--Xlink=-cetcompat)
  get_target_property(type ${target} TYPE)
  if(type MATCHES "EXECUTABLE|SHARED_LIBRARY")
    set(runtime "${CMAKE_SOURCE_DIR}/cmake/control-flow-guard.S")
    target_sources(${target} PRIVATE "${runtime}")
    set_source_files_properties("${runtime}" PROPERTIES
      COMPILE_OPTIONS -Wno-unused-command-line-argument)
  endif()
endfunction()

# Symbols in the format of Windows' own debuggers, in a file <target>.pdb beside what is linked. The
# tests go without.
function(nimbra_target_symbols target)
  get_target_property(folder ${target} SOURCE_DIR)
  cmake_path(RELATIVE_PATH folder BASE_DIRECTORY "${CMAKE_SOURCE_DIR}")
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang" OR folder MATCHES "^tests")
    return()
  endif()
  # The image names the file without its folder, and the file names no folder of this build: a build
  # in another one is the same.
  target_compile_options(${target} PRIVATE -g -gcodeview -gno-codeview-command-line
    -ffile-compilation-dir=.)
  target_link_options(${target} PRIVATE
    -Wl,--pdb= "-Wl,--Xlink=-pdbaltpath:%_PDB%" -Wl,--Xlink=-pdbsourcepath:.)
endfunction()

# The manifest that a host program needs: without `supportedOS` Windows reports an older version and
# the library's gate stays closed.
function(nimbra_add_host_manifest target)
  target_sources(${target} PRIVATE "${CMAKE_SOURCE_DIR}/cmake/host-manifest.rc")
endfunction()
