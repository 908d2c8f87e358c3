# The properties and host settings tests write "/etc/zantorkv/zantorkv.conf" and
# "/var/zantormx/": each binary runs under hermetic.sh, where both are private tmpfs
# directories. Their cases clean up after one another, so one namespace per binary will do.
foreach(name properties_test setting_test)
  set(target hermetic_${name})
  add_executable(${target} ${CMAKE_CURRENT_SOURCE_DIR}/hermetic/${name}.cpp)
  kv_link_product(${target})
  target_link_libraries(${target} PRIVATE kv_test_support GTest::gmock GTest::gtest_main)
  target_include_directories(${target} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_compile_definitions(${target} PRIVATE
    KV_BIN_DIR="${CMAKE_BINARY_DIR}" KV_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  add_test(NAME ${target} COMMAND ${CMAKE_SOURCE_DIR}/tests/support/hermetic.sh $<TARGET_FILE:${target}>)
  set_tests_properties(${target} PROPERTIES TIMEOUT 120)
endforeach()
