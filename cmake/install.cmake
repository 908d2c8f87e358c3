# What `cmake --install` puts on a system besides the executables: the static libraries,
# their public headers, and a pkg-config file for the client library.

# The framework's C library replacements are an object library inside the tree; installed
# programs get them from an archive of their own, linked whole (see docs/architecture.md).
add_library(zfw_override_archive STATIC $<TARGET_OBJECTS:zfw_override>)
set_target_properties(zfw_override_archive PROPERTIES OUTPUT_NAME zfw_override
                      LINKER_LANGUAGE CXX)

install(TARGETS lrpc2 zkvfw zfw zfw_override_archive ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
foreach(lib lrpc2 zkvfw zfw)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${lib}/include/${lib}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endforeach()

# The prefix is found from the file's own place, so that the file stays right wherever the
# tree is installed (`cmake --install --prefix`, the Debian package's /usr, a staging root).
file(RELATIVE_PATH KV_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" KV_PC_TO_PREFIX "${KV_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/lrpc2.pc.in ${PROJECT_BINARY_DIR}/lrpc2.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/lrpc2.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
