# What `cmake --install` puts on a system besides the executables: the static libraries,
# their public headers, and a pkg-config file for each library.

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

# One pkg-config file per library. The prefix is found from the file's own place, so that
# the file stays right wherever the tree is installed (`cmake --install --prefix`, the Debian
# package's /usr, a staging root).
file(RELATIVE_PATH KV_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" KV_PC_TO_PREFIX "${KV_PC_TO_PREFIX}")
# name | Requires | Libs after -L | extra Cflags | Description.
# lrpc2 is C++ inside, behind C headers: C programs need the C++ run time too. The
# framework's replacements of snprintf and random must be linked whole, and the caller's own
# calls must reach them: no fortified or builtin snprintf.
set(KV_PC_LIBRARIES
  "lrpc2||-llrpc2 -lstdc++||Plain-function client library for the Kavelo audit daemon's RPC protocol"
  "zfw||-Wl,--whole-archive -lzfw_override -Wl,--no-whole-archive -lzfw -pthread -ldl\
| -U_FORTIFY_SOURCE -fno-builtin-snprintf -fno-builtin-vsnprintf|Framework of the Kavelo audit daemon's clients"
  "zkvfw|lrpc2 zfw|-lzkvfw||Client session and typed messages for the Kavelo audit daemon")
foreach(row ${KV_PC_LIBRARIES})
  string(REPLACE "|" ";" row "${row}")
  list(GET row 0 KV_PC_NAME)
  list(GET row 1 KV_PC_REQUIRES)
  list(GET row 2 KV_PC_LIBS)
  list(GET row 3 KV_PC_CFLAGS)
  list(GET row 4 KV_PC_DESCRIPTION)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in
                 ${PROJECT_BINARY_DIR}/pkgconfig/${KV_PC_NAME}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${KV_PC_NAME}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# Prometheus alert rules on kvctl's metrics; their runbook links point into the README,
# which the package installs as its documentation.
install(FILES ${PROJECT_SOURCE_DIR}/monitoring/kavelo.rules.yml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/kvstop/prometheus)
