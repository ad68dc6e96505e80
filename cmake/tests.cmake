# core_tests, one executable of all C++ tests, and the peers that Python tests talk to.

enable_testing()
find_package(GTest REQUIRED)
include(GoogleTest)

file(GLOB_RECURSE test_sources CONFIGURE_DEPENDS tests/*.cpp)
list(FILTER test_sources EXCLUDE REGEX "/tests/(python|fuzz)/|/tests/support/(json_peer|era_host|kill_points)\\.cpp$")
if(NOT TARGET brackenfen_distribution)
  list(FILTER test_sources EXCLUDE REGEX "/tests/tools/")
endif()

add_executable(core_tests ${test_sources})
target_link_libraries(core_tests PRIVATE brackenfen_sync_core OpenSSL::SSL OpenSSL::Crypto GTest::gmock_main)
if(TARGET brackenfen_distribution)
  target_link_libraries(core_tests PRIVATE brackenfen_distribution)
  add_dependencies(core_tests brackenfen-distribution)
endif()
brackenfen_warnings(core_tests)
gtest_discover_tests(core_tests DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120)

foreach(name json_peer era_host)
  add_executable(${name} tests/support/${name}.cpp)
  target_link_libraries(${name} PRIVATE brackenfen_sync_core)
  brackenfen_warnings(${name})
endforeach()

# Preloaded into other programs.
add_library(kill_points MODULE tests/support/kill_points.cpp)
target_link_libraries(kill_points PRIVATE ${CMAKE_DL_LIBS})
set_target_properties(kill_points PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
brackenfen_warnings(kill_points)
