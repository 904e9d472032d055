# Debian packages of the installed tree, by CPack. Configure with CMAKE_INSTALL_PREFIX=/usr, which
# chooses the library folder of the architecture. Cross-built packages are not made: what they
# depend on is asked of the running system.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libtrend)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "time-series trend data in one SQLite file")
set(CPACK_PACKAGE_CONTACT "The libtrend authors <libtrend@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development module)
if(TREND_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL trendlog)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

set(about
"libtrend records the measured values of devices in one SQLite file, rolls
them up into coarser intervals, keeps each table to its number of rows and
reads ranges back at the best resolution still stored.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtrend${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"${about}
.
This package contains the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtrend-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libtrend${PROJECT_VERSION_MAJOR} (= ${version}), libsqlite3-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"${about}
.
This package contains the headers and what CMake and pkg-config read.")

set(CPACK_DEBIAN_MODULE_PACKAGE_NAME libsqlite3-mod-trend)
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_MODULE_PACKAGE_SUGGESTS sqlite3)
set(CPACK_DEBIAN_MODULE_DESCRIPTION
"${about}
.
This package contains a module for SQLite with the aggregate functions that
the library uses: averages weighted by percentages, and minima, maxima and
averages of power factors.")

set(CPACK_DEBIAN_TRENDLOG_PACKAGE_NAME trendlog)
set(CPACK_DEBIAN_TRENDLOG_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TRENDLOG_PACKAGE_DEPENDS "libtrend${PROJECT_VERSION_MAJOR} (= ${version})")
set(CPACK_DEBIAN_TRENDLOG_PACKAGE_RECOMMENDS tzdata)
set(CPACK_DEBIAN_TRENDLOG_PACKAGE_SUGGESTS bash-completion)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/common)
set(CPACK_DEBIAN_TRENDLOG_DESCRIPTION
"${about}
.
This package contains the command trendlog, which looks into such a file,
draws and exports what is in it, and checks it.")

# The loader's cache is brought up to date once for all packages of one installation.
file(WRITE ${CMAKE_BINARY_DIR}/package-control/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/package-control/triggers)

# What every package says about itself.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(doc ${CMAKE_BINARY_DIR}/package-doc)
file(WRITE ${doc}/changelog.Debian
"libtrend (${version}) unstable; urgency=medium

  * Package of version ${PROJECT_VERSION}.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
find_program(TREND_GZIP gzip REQUIRED)
execute_process(COMMAND ${TREND_GZIP} --best --no-name --force ${doc}/changelog.Debian
                RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "${TREND_GZIP} failed: ${failed}")
endif()
file(READ ${PROJECT_SOURCE_DIR}/LICENSE license)
file(WRITE ${doc}/copyright "libtrend, ${PROJECT_DESCRIPTION}\n\n${license}")
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} COMPONENT)
  install(FILES ${doc}/changelog.Debian.gz ${doc}/copyright
      DESTINATION share/doc/${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME}
      COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
