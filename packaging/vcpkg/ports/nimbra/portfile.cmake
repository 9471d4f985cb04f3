# Builds the checkout that this port is part of.
get_filename_component(SOURCE_PATH "${CMAKE_CURRENT_LIST_DIR}/../../../.." ABSOLUTE)

vcpkg_check_linkage(ONLY_DYNAMIC_LIBRARY)

# The DLL shares nothing of the C++ runtime with its client, so that one build of it serves both.
set(VCPKG_BUILD_TYPE release)
set(VCPKG_POLICY_MISMATCHED_NUMBER_OF_BINARIES enabled)

vcpkg_cmake_configure(
  SOURCE_PATH "${SOURCE_PATH}"
  OPTIONS
    -DNIMBRA_BUILD_BENCH=OFF
    -DNIMBRA_BUILD_EXAMPLES=OFF
    -DNIMBRA_BUILD_SIMULATOR=OFF
    -DNIMBRA_BUILD_SITE=OFF
    -DNIMBRA_BUILD_TESTS=OFF
    -DNIMBRA_BUILD_TOOLS=OFF
    -DNIMBRA_INSTALL_PAPERS=share/nimbra
    -DNIMBRA_WARNINGS_AS_ERRORS=OFF)
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME nimbra CONFIG_PATH lib/cmake/Nimbra)
vcpkg_copy_pdbs()
vcpkg_fixup_pkgconfig()

file(INSTALL "${CMAKE_CURRENT_LIST_DIR}/usage" DESTINATION "${CURRENT_PACKAGES_DIR}/share/${PORT}")
# No licence has been chosen; the file says so.
vcpkg_install_copyright(FILE_LIST "${SOURCE_PATH}/packaging/LICENCE-STATUS.txt")
