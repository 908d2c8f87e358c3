# The Debian package (`cpack -G DEB` in a build directory; scripts/package.sh builds one
# from nothing): everything that `cmake --install` puts in place, under /usr.
set(CPACK_PACKAGE_NAME kvstop)
set(CPACK_PACKAGE_VENDOR "kvstop developers")
set(CPACK_PACKAGE_CONTACT "kvstop developers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "stop the local Kavelo audit daemon")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "kvstop asks the Kavelo audit daemon on the local host to stop over its control socket\n"
  "and confirms that it is gone; kvctl also queries its status, pings and reloads it. The\n"
  "package also holds kvdsim, a simulated daemon for\n"
  "testing, and the static client libraries lrpc2, zkvfw and zfw with their headers.")
set(CPACK_PACKAGE_INSTALL_DIRECTORY kvstop)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Run-time dependencies come from the executables' shared libraries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
