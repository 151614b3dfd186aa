# Builds GoogleTest and GoogleMock from Debian's source package (googletest, /usr/src/googletest)
# as part of this project and offers the same target names the installed package does
# (GTest::gtest, GTest::gtest_main, GTest::gmock, GTest::gmock_main), so test CMakeLists do not
# care where the framework came from.
#
# Used where the installed libraries cannot serve: a cross build (they are built for the host), or
# on request (OBD_GTEST_FROM_SOURCE) when the framework must carry the same instrumentation as the
# code under test.

set(OBD_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest source tree to build from")
if(NOT EXISTS ${OBD_GTEST_SOURCE_DIR}/CMakeLists.txt)
  message(FATAL_ERROR "No GoogleTest sources in ${OBD_GTEST_SOURCE_DIR}: run scripts/deps.sh "
                      "(package googletest)")
endif()

set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
add_subdirectory(${OBD_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/_deps/googletest EXCLUDE_FROM_ALL)

foreach(lib gtest gtest_main gmock gmock_main)
  # The framework's own warnings are not ours to fix; our -Werror stays on for our code.
  target_compile_options(${lib} PRIVATE -w)
  if(NOT TARGET GTest::${lib})
    add_library(GTest::${lib} ALIAS ${lib})
  endif()
endforeach()
# Older names some CMake versions' FindGTest still export.
if(NOT TARGET GTest::GTest)
  add_library(GTest::GTest ALIAS gtest)
endif()
if(NOT TARGET GTest::Main)
  add_library(GTest::Main ALIAS gtest_main)
endif()
set(GTEST_FOUND TRUE)
set(GTest_FOUND TRUE)
