# Stand-ins for the packages of tools and tests when compiling for another machine, for which Debian
# has them not installed: their headers and sources are the same on all.
add_library(fmt::fmt INTERFACE IMPORTED)
target_compile_definitions(fmt::fmt INTERFACE FMT_HEADER_ONLY=1)
set(fmt_FOUND ON)

set(googletest /usr/src/googletest)
if(EXISTS ${googletest})
  add_library(foreign_gtest STATIC
    ${googletest}/googletest/src/gtest-all.cc ${googletest}/googlemock/src/gmock-all.cc
    ${googletest}/googletest/src/gtest_main.cc)
  target_include_directories(foreign_gtest PRIVATE ${googletest}/googletest ${googletest}/googlemock)
  target_compile_options(foreign_gtest PRIVATE -w)
  add_library(GTest::gmock ALIAS foreign_gtest)
  add_library(GTest::gtest_main ALIAS foreign_gtest)
  set(GTest_FOUND ON)
endif()
