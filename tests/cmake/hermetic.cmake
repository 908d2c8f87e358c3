# tests/support/hermetic.cpp re-runs test cases under hermetic.sh: every test executable
# that links it learns where the script is.
set_source_files_properties(${CMAKE_CURRENT_SOURCE_DIR}/support/hermetic.cpp PROPERTIES
  COMPILE_DEFINITIONS "KV_HERMETIC_SCRIPT=\"${CMAKE_CURRENT_SOURCE_DIR}/support/hermetic.sh\"")
