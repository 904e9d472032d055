# GoogleTest: the system's package or, for another machine than this one, its sources.

if(NOT CMAKE_CROSSCOMPILING)
  find_package(GTest REQUIRED)
else()
  set(TREND_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest's sources")
  set(INSTALL_GTEST OFF)
  set(shared ${BUILD_SHARED_LIBS})
  set(BUILD_SHARED_LIBS OFF)
  add_subdirectory(${TREND_GOOGLETEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest
                   EXCLUDE_FROM_ALL SYSTEM)
  set(BUILD_SHARED_LIBS ${shared})

  # Its headers call stat() and the like inline, so it must agree with the tests on their records.
  foreach(target IN ITEMS gtest gmock)
    target_compile_definitions(${target} PUBLIC
        $<TARGET_PROPERTY:trend,INTERFACE_COMPILE_DEFINITIONS>)
  endforeach()
endif()
