# A shared library outside the framework that the formatter test loads with dlopen.
add_library(format_probe SHARED ${CMAKE_CURRENT_SOURCE_DIR}/probes/format_probe.c)
add_dependencies(format_test format_probe)
target_compile_definitions(format_test PRIVATE FORMAT_PROBE_PATH="$<TARGET_FILE:format_probe>")
