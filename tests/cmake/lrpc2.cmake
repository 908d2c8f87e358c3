# The exchange tests start the simulated daemon; every test binary links the helper that
# knows where it is.
add_dependencies(lrpc2_exchange_test kvdsim)
set_source_files_properties(${CMAKE_CURRENT_SOURCE_DIR}/support/kvdsim.cpp PROPERTIES
  COMPILE_DEFINITIONS KVDSIM_PATH="$<TARGET_FILE:kvdsim>")
