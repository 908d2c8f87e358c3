# kvstop and the session run against the simulated daemon, each test in namespaces of its own.
add_dependencies(kvstop_test kvstop kvdsim)
add_dependencies(kvstop_log_test kvstop kvdsim)
add_dependencies(lrpc2client_test kvdsim)

# The case that waits out kvstop's fixed 60-second ping lives in a binary of its own so
# that it carries the label "long" (ctest -LE long leaves it out; the full suite runs it).
add_executable(kvstop_long_test ${CMAKE_CURRENT_SOURCE_DIR}/long/kvstop_long_test.cpp
               ${KV_TEST_SUPPORT_SOURCES})
kv_link_product(kvstop_long_test)
target_link_libraries(kvstop_long_test PRIVATE GTest::gmock GTest::gtest_main)
target_include_directories(kvstop_long_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(kvstop_long_test PRIVATE
  KV_BIN_DIR="${CMAKE_BINARY_DIR}" KV_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
add_dependencies(kvstop_long_test kvstop kvdsim)
gtest_discover_tests(kvstop_long_test DISCOVERY_TIMEOUT 30 PROPERTIES TIMEOUT 300 LABELS long)
