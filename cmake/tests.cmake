# core_tests, one executable of all C++ tests, and the programs of the torture campaign.

enable_testing()
find_package(GTest REQUIRED)
include(GoogleTest)

file(GLOB_RECURSE test_sources CONFIGURE_DEPENDS tests/*.cpp)
list(FILTER test_sources EXCLUDE REGEX "/tests/(python|fuzz|torture)/")
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

# What the torture campaign runs, and what it preloads into that.
add_executable(torture_host tests/torture/host.cpp)
add_executable(torture_peer tests/torture/peer.cpp)
foreach(name torture_host torture_peer)
  target_link_libraries(${name} PRIVATE brackenfen_sync_core)
  brackenfen_warnings(${name})
endforeach()
target_link_libraries(torture_host PRIVATE ${CMAKE_DL_LIBS})
add_library(torture_faults MODULE tests/torture/faults.cpp)
target_link_libraries(torture_faults PRIVATE ${CMAKE_DL_LIBS})
set_target_properties(torture_faults PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
brackenfen_warnings(torture_faults)
