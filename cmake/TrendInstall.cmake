# What `cmake --install` puts where. Nothing in it names the prefix, so the tree may be moved.
#
# Components: "runtime" is what a program needs to run, "development" what it needs to be built,
# "module" the aggregate functions for other programs that use SQLite.

include(CMakePackageConfigHelpers)

set(TREND_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/trend)
set(TREND_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(TREND_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/trend)

install(TARGETS trend EXPORT trend-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES ${headers} DESTINATION ${TREND_HEADER_DIR} COMPONENT development)

# find_package(trend)
configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/trend-config.cmake.in trend-config.cmake
    INSTALL_DESTINATION ${TREND_CMAKE_DIR}
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(trend-config-version.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT trend-targets
    NAMESPACE trend::
    DESTINATION ${TREND_CMAKE_DIR}
    COMPONENT development)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/trend-config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/trend-config-version.cmake
    DESTINATION ${TREND_CMAKE_DIR}
    COMPONENT development)

# pkg-config trend
function(trend_relative_to_prefix result dir)
  get_filename_component(dir "${dir}" ABSOLUTE BASE_DIR "${CMAKE_INSTALL_PREFIX}")
  file(RELATIVE_PATH dir "${CMAKE_INSTALL_PREFIX}" "${dir}")
  set(${result} "${dir}" PARENT_SCOPE)
endfunction()

trend_relative_to_prefix(TREND_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
trend_relative_to_prefix(TREND_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
file(RELATIVE_PATH TREND_PC_PREFIX "/${TREND_PC_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" TREND_PC_PREFIX "${TREND_PC_PREFIX}")
get_target_property(definitions trend INTERFACE_COMPILE_DEFINITIONS)
set(TREND_PC_DEFINITIONS)
if(definitions)
  list(TRANSFORM definitions PREPEND " -D")
  list(JOIN definitions "" TREND_PC_DEFINITIONS)
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/trend.pc.in trend.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/trend.pc
    DESTINATION ${TREND_PKGCONFIG_DIR}
    COMPONENT development)

# .load LIBDIR/trend/trend
install(TARGETS trend_sqlite_module
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/trend COMPONENT module)
