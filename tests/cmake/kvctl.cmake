# kvctl against the simulated daemon; the test reads kvctl's JSON back with the same library.
find_package(nlohmann_json 3 REQUIRED)
add_dependencies(kvctl_test kvctl kvdsim)
target_link_libraries(kvctl_test PRIVATE nlohmann_json::nlohmann_json)
