# What a file has that users get: its version where Windows looks for it, its symbols in a file of
# their own, and a record of what the linker put into it.

include_guard(GLOBAL)

# The parts of a version are numbers in Windows, and there are always four.
set(NIMBRA_VERSION_NUMBERS
  "${PROJECT_VERSION_MAJOR},${PROJECT_VERSION_MINOR},${PROJECT_VERSION_PATCH},0")

# nimbra_target_shipped(<target> <file name> <description>): for a target that already has
# nimbra_target_defaults. Call it in the folder that defines the target.
function(nimbra_target_shipped target fileName description)
  set_target_properties(${target} PROPERTIES NIMBRA_SHIPPED_AS "${fileName}")
  nimbra_add_version_info(${target} "${fileName}" "${description}")
  if(MINGW AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    nimbra_link_record(record ${target})
    target_link_options(${target} PRIVATE "-Wl,-Map=${record}")
  endif()
endfunction()

# The linker's own list of what it took from which archive is what the SBOM is made from.
if(MINGW)
  set(NIMBRA_LINK_RECORDS ON)
  set(NIMBRA_LINK_RECORD_FOLDER "${CMAKE_BINARY_DIR}/link-records")
  file(MAKE_DIRECTORY "${NIMBRA_LINK_RECORD_FOLDER}")
endif()

# nimbra_link_record(<variable> <target>): the file with that list of a target that is shipped: GNU
# ld's map, or the .pdb file of lld, whose map does not name the archives.
function(nimbra_link_record variable target)
  get_target_property(file ${target} NIMBRA_SHIPPED_AS)
  set(record "${NIMBRA_LINK_RECORD_FOLDER}/${file}.map")
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    cmake_path(GET file STEM stem)
    set(record "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${stem}.pdb")
  endif()
  set(${variable} "${record}" PARENT_SCOPE)
endfunction()

function(nimbra_add_version_info target fileName description)
  if(NOT WIN32)
    return()
  endif()
  set(NIMBRA_FILE_NAME "${fileName}")
  cmake_path(GET fileName STEM NIMBRA_INTERNAL_NAME)
  set(NIMBRA_FILE_DESCRIPTION "${description}")
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    set(NIMBRA_FILE_TYPE 0x1)
  else()
    set(NIMBRA_FILE_TYPE 0x2)
  endif()
  set(script "${CMAKE_CURRENT_BINARY_DIR}/${target}-version.rc")
  configure_file("${PROJECT_SOURCE_DIR}/cmake/version-info.rc.in" "${script}" @ONLY)
  target_sources(${target} PRIVATE "${script}")
endfunction()

# nimbra_separate_symbols(<target> [<library>...]): compiles the target, and the static libraries of
# ours that are in it, with symbols, and moves these out of the release build into
# <file>.debug, which gdb finds beside it. Tests keep to what is shipped: it is the same code.
function(nimbra_separate_symbols target)
  if(NOT MINGW OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU" OR NOT CMAKE_OBJCOPY
      OR NIMBRA_CHECKED OR NIMBRA_COVERAGE)
    return()
  endif()
  # The folder of the build is in the symbols, and their checksum is in the file that is shipped.
  foreach(part IN LISTS target ARGN)
    target_compile_options(${part} PRIVATE
      $<$<CONFIG:Release>:-g> "-ffile-prefix-map=${CMAKE_BINARY_DIR}=build")
  endforeach()
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Release")
    return()
  endif()
  set_target_properties(${target} PROPERTIES NIMBRA_KEEPS_SYMBOLS ON)
  # objcopy dates what it writes, by this variable if it is set.
  set(objcopy "${CMAKE_COMMAND}" -E env SOURCE_DATE_EPOCH=0 "${CMAKE_OBJCOPY}")
  set(file "$<TARGET_FILE:${target}>")
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${objcopy} --only-keep-debug "${file}" "${file}.debug"
    COMMAND ${objcopy} --strip-all "--add-gnu-debuglink=${file}.debug" "${file}"
    VERBATIM)
  set_property(TARGET ${target} APPEND PROPERTY ADDITIONAL_CLEAN_FILES "${file}.debug")
endfunction()
