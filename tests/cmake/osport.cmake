# A library loaded at run time that calls rand/random by name: proves that the process-wide
# replacements are the ones outside code reaches.
add_library(osport_rand_probe MODULE ${CMAKE_CURRENT_SOURCE_DIR}/probes/rand_probe.c)
add_dependencies(osport_test osport_rand_probe)
target_compile_definitions(osport_test PRIVATE
  KV_RAND_PROBE="$<TARGET_FILE:osport_rand_probe>")
