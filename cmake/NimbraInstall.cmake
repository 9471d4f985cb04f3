# The package for developers: `cmake --install` makes its folder, `cpack` the zip. What is in it is
# in docs/packaging.md. The component `library` is what programs are built with.

include(CMakePackageConfigHelpers)

set(NIMBRA_INSTALL_PAPERS "." CACHE STRING
  "Where README.md, docs/, examples/ and the like are installed, relative to the prefix")
set(papers "${NIMBRA_INSTALL_PAPERS}")
set(packaging "${PROJECT_SOURCE_DIR}/packaging")
set(generated "${CMAKE_BINARY_DIR}/packaging")

# The library

install(TARGETS nimbra
  RUNTIME DESTINATION bin COMPONENT library
  ARCHIVE DESTINATION lib COMPONENT library)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/nimbra" DESTINATION include COMPONENT library
  FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")
install(FILES "$<TARGET_FILE:nimbra>.debug" "$<TARGET_FILE_DIR:nimbra>/Nimbra.pdb"
  DESTINATION bin COMPONENT library OPTIONAL)

# What MinGW's linker reads, linkers of the MSVC kind cannot.
if(MINGW)
  find_program(NIMBRA_DLLTOOL NAMES llvm-dlltool-19 llvm-dlltool NO_CMAKE_FIND_ROOT_PATH)
  if(NIMBRA_DLLTOOL)
    set(definitions "${PROJECT_SOURCE_DIR}/lib/cloud-filter/nimbra-host/nimbra/nimbra.def")
    set(library "${CMAKE_ARCHIVE_OUTPUT_DIRECTORY}/Nimbra.lib")
    add_custom_command(OUTPUT "${library}"
      COMMAND "${NIMBRA_DLLTOOL}" -m i386:x86-64 -D Nimbra.dll -d "${definitions}" -l "${library}"
      DEPENDS "${definitions}"
      VERBATIM)
    add_custom_target(nimbra_msvc_import_library ALL DEPENDS "${library}")
    install(FILES "${library}" DESTINATION lib COMPONENT library)
  else()
    install(CODE "message(FATAL_ERROR \"llvm-dlltool, which makes lib/Nimbra.lib, is missing: \
install Debian's llvm-19 and configure again\")")
  endif()
endif()

# For build systems

configure_package_config_file("${packaging}/cmake/NimbraConfig.cmake.in"
  "${generated}/NimbraConfig.cmake" INSTALL_DESTINATION lib/cmake/Nimbra
  NO_CHECK_REQUIRED_COMPONENTS_MACRO)
# Before 1.0 each minor version may break its users (semver.org, item 4).
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(compatibility SameMinorVersion)
else()
  set(compatibility SameMajorVersion)
endif()
write_basic_package_version_file("${generated}/NimbraConfigVersion.cmake"
  COMPATIBILITY ${compatibility})
configure_file("${packaging}/cmake/nimbra.pc.in" "${generated}/nimbra.pc" @ONLY)
install(FILES "${generated}/NimbraConfig.cmake" "${generated}/NimbraConfigVersion.cmake"
  DESTINATION lib/cmake/Nimbra COMPONENT library)
install(FILES "${generated}/nimbra.pc" DESTINATION lib/pkgconfig COMPONENT library)
install(FILES cmake/host.manifest cmake/host-manifest.rc DESTINATION share/nimbra COMPONENT library)
install(DIRECTORY "${packaging}/nuget" DESTINATION "${papers}")

# Programs

foreach(target IN ITEMS mirror nimbractl)
  if(TARGET ${target})
    list(APPEND NIMBRA_INSTALLED_PROGRAMS ${target})
    install(TARGETS ${target} RUNTIME DESTINATION bin)
  endif()
endforeach()

# Papers

install(FILES README.md "${packaging}/LICENCE-STATUS.txt" DESTINATION "${papers}")
install(DIRECTORY docs DESTINATION "${papers}"
  FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png")
install(DIRECTORY examples DESTINATION "${papers}"
  PATTERN CMakeLists.txt EXCLUDE
  PATTERN __pycache__ EXCLUDE)
configure_file("${packaging}/examples/CMakeLists.txt.in" "${generated}/CMakeLists.txt" @ONLY)
install(FILES "${generated}/CMakeLists.txt" DESTINATION "${papers}/examples")

find_program(NIMBRA_PYTHON NAMES python3 python NO_CMAKE_FIND_ROOT_PATH)
find_program(NIMBRA_DPKG_QUERY dpkg-query NO_CMAKE_FIND_ROOT_PATH)
include(NimbraSite)

# Last, as it is about what was installed: the SBOM, licences of what is linked in, checksums.

find_program(NIMBRA_PDBUTIL NAMES llvm-pdbutil-19 llvm-pdbutil NO_CMAKE_FIND_ROOT_PATH)
set(arguments --version "${PROJECT_VERSION}" --papers "${papers}")
list(APPEND arguments --toolchain "${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION}")
# Debian's packages know under what licences the compiler's runtime is.
if(NIMBRA_LINK_RECORDS AND NIMBRA_DPKG_QUERY)
  foreach(target IN LISTS NIMBRA_INSTALLED_PROGRAMS ITEMS nimbra)
    get_target_property(file ${target} NIMBRA_SHIPPED_AS)
    nimbra_link_record(record ${target})
    list(APPEND arguments --record "bin/${file}=${record}")
    # A library of headers only leaves no trace in the linker's record.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
      execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -print-resource-dir
        OUTPUT_VARIABLE resources OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
      list(APPEND arguments --header "bin/${file}=${resources}/include/stddef.h")
    endif()
  endforeach()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    list(APPEND arguments --pdbutil "${NIMBRA_PDBUTIL}")
  endif()
  if(TARGET nimbractl)
    list(APPEND arguments
      --header "bin/nimbractl.exe=${NIMBRA_cli11_FOLDER}/CLI/CLI.hpp"
      --header "bin/nimbractl.exe=${NIMBRA_json_FOLDER}/nlohmann/json.hpp")
  endif()
  if(NIMBRA_SITE_IS_BUILT)
    # Its scripts and styles are copied from there.
    list(APPEND arguments --header "${NIMBRA_SITE}=${NIMBRA_SITE_THEME}")
  endif()
else()
  install(CODE "message(WARNING \"No SBOM and no third-party notices: they are made of builds \
with MinGW's gcc or with clang on Debian only\")")
endif()
if(NIMBRA_PYTHON)
  list(JOIN arguments "\" \"" arguments)
  configure_file("${packaging}/cmake/describe-package.cmake.in"
    "${generated}/describe-package.cmake" @ONLY)
  install(SCRIPT "${generated}/describe-package.cmake")
else()
  install(CODE "message(WARNING \"Python is not installed: no SBOM, notices and checksums\")")
endif()

# The archiver is ours, as those of cpack put the time of packing into the zip.
set(CPACK_GENERATOR External)
set(CPACK_EXTERNAL_ENABLE_STAGING ON)
set(CPACK_MONOLITHIC_INSTALL ON)
set(CPACK_EXTERNAL_PACKAGE_SCRIPT "${packaging}/cmake/pack.cmake")
set(CPACK_NIMBRA_PYTHON "${NIMBRA_PYTHON}")
set(CPACK_PACKAGE_NAME nimbra)
# The packages of other compilers are told apart by their names.
set(compiler "")
if(MSVC)
  set(compiler "-msvc")
elseif(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  set(compiler "-clang")
endif()
set(CPACK_PACKAGE_FILE_NAME "nimbra-${PROJECT_VERSION}-win64${compiler}")
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_VERBATIM_VARIABLES ON)
include(CPack)
