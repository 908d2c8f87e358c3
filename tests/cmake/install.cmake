# Installation and packaging.
# The manual pages render cleanly.
add_test(NAME man_pages
         COMMAND ${CMAKE_SOURCE_DIR}/tests/install/man_pages_test.sh ${CMAKE_BINARY_DIR}/man)
# The Debian package installs, works and purges cleanly, in a throwaway namespace. The
# installed libraries carry this tree's sanitizer, so the test's own program needs it too.
set(KV_SANITIZE_FLAGS "")
if(KV_SANITIZE STREQUAL "address")
  set(KV_SANITIZE_FLAGS -fsanitize=address,undefined)
elseif(KV_SANITIZE STREQUAL "thread")
  set(KV_SANITIZE_FLAGS -fsanitize=thread)
endif()
add_test(NAME package
         COMMAND ${CMAKE_SOURCE_DIR}/tests/support/hermetic.sh bash
                 ${CMAKE_SOURCE_DIR}/tests/install/package_test.sh ${CMAKE_BINARY_DIR}
                 ${KV_SANITIZE_FLAGS})
set_tests_properties(package PROPERTIES TIMEOUT 300)
# kvstop's records reach a real rsyslogd on a private /dev/log with the right priority.
add_test(NAME rsyslog
         COMMAND ${CMAKE_SOURCE_DIR}/tests/support/hermetic.sh --devlog bash
                 ${CMAKE_SOURCE_DIR}/tests/install/rsyslog_test.sh ${CMAKE_BINARY_DIR})
set_tests_properties(rsyslog PROPERTIES TIMEOUT 120)
