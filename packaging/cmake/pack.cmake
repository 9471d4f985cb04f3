# Run by cpack, in place of its own archiver: see pack.py.

set(zip "${CPACK_PACKAGE_DIRECTORY}/${CPACK_PACKAGE_FILE_NAME}.zip")
execute_process(
  COMMAND "${CPACK_NIMBRA_PYTHON}" "${CMAKE_CURRENT_LIST_DIR}/../pack.py"
          "${CPACK_TEMPORARY_DIRECTORY}" "${zip}"
  COMMAND_ERROR_IS_FATAL ANY)
set(CPACK_EXTERNAL_BUILT_PACKAGES "${zip}")
