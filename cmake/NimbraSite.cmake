# The documentation as a site, for the package: share/doc/nimbra/html. It is left out, and installing
# says so, where the tools for it are missing.

option(NIMBRA_BUILD_SITE "Build the documentation as a site, where mkdocs and its theme material are" ON)

set(NIMBRA_SITE share/doc/nimbra/html)
set(NIMBRA_SITE_IS_BUILT OFF)
# Of Debian's package, which also says under what licence the theme is.
set(NIMBRA_SITE_THEME /usr/share/mkdocs/themes/material/base.html)

# nimbra_find_site_tools(<variable>): what is missing, or nothing.
function(nimbra_find_site_tools variable)
  find_program(NIMBRA_MKDOCS mkdocs PATHS /usr/bin NO_DEFAULT_PATH)
  find_program(NIMBRA_MKDOCS mkdocs NO_CMAKE_FIND_ROOT_PATH)
  set(missing "")
  if(NOT NIMBRA_MKDOCS)
    set(missing "mkdocs (Debian's packages mkdocs and mkdocs-material)")
  elseif(NOT NIMBRA_PYTHON)
    set(missing "Python")
  else()
    execute_process(COMMAND "${NIMBRA_MKDOCS}" build --help OUTPUT_VARIABLE help ERROR_QUIET)
    execute_process(COMMAND "${NIMBRA_PYTHON}" -c "import tomllib"
      RESULT_VARIABLE result OUTPUT_QUIET ERROR_QUIET)
    if(NOT help MATCHES "material" OR (NIMBRA_DPKG_QUERY AND NOT EXISTS "${NIMBRA_SITE_THEME}"))
      set(missing "mkdocs' theme material (Debian's package mkdocs-material)")
    elseif(NOT result EQUAL 0)
      set(missing "Python 3.11 or later")
    endif()
  endif()
  set(${variable} "${missing}" PARENT_SCOPE)
endfunction()

if(NIMBRA_CHECKED OR NIMBRA_COVERAGE)
  return()
endif()
set(explanation "the package is without the documentation as a site (${NIMBRA_SITE})")
if(NOT NIMBRA_BUILD_SITE)
  message(STATUS "NIMBRA_BUILD_SITE is off: ${explanation}")
  return()
endif()
nimbra_find_site_tools(missing)
if(missing)
  message(STATUS "${missing} is missing: ${explanation}")
  install(CODE "message(WARNING \"${missing} is missing: ${explanation}. Its text is in docs/. For the \
site, install that and configure again.\")")
  return()
endif()

set(NIMBRA_SITE_IS_BUILT ON)
set(site "${CMAKE_BINARY_DIR}/packaging/html")
add_custom_command(OUTPUT "${site}/index.html"
  COMMAND "${NIMBRA_PYTHON}" "${PROJECT_SOURCE_DIR}/scripts/docs/build_site.py"
          --mkdocs "${NIMBRA_MKDOCS}" --depfile "${CMAKE_BINARY_DIR}/packaging/site.d"
          "${CMAKE_BINARY_DIR}/packaging/pages" "${site}"
  DEPENDS "${PROJECT_SOURCE_DIR}/scripts/docs/build_site.py"
  DEPFILE "${CMAKE_BINARY_DIR}/packaging/site.d"
  COMMENT "Building the documentation as a site"
  VERBATIM)
add_custom_target(nimbra_site ALL DEPENDS "${site}/index.html")
install(DIRECTORY "${site}/" DESTINATION "${NIMBRA_SITE}")
