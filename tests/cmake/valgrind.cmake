# kvstop end to end under valgrind (label "valgrind"). Only the plain build: valgrind cannot
# run a binary built with a sanitizer.
if(KV_SANITIZE STREQUAL "")
  add_executable(kvstop_valgrind_test ${CMAKE_CURRENT_SOURCE_DIR}/valgrind/kvstop_valgrind_test.cpp)
  kv_link_product(kvstop_valgrind_test)
  target_link_libraries(kvstop_valgrind_test PRIVATE kv_test_support GTest::gmock GTest::gtest_main)
  target_include_directories(kvstop_valgrind_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_compile_definitions(kvstop_valgrind_test PRIVATE KV_BIN_DIR="${CMAKE_BINARY_DIR}")
  add_dependencies(kvstop_valgrind_test kvstop kvdsim)
  gtest_discover_tests(kvstop_valgrind_test DISCOVERY_TIMEOUT 30 PROPERTIES TIMEOUT 300
                       LABELS valgrind)
endif()
