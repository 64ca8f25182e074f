# The Debian package: `cpack -G DEB` in a build directory makes one package,
# vesk-transport, with everything the installation rules install: both
# libraries, the headers, the CMake package, the pkg-config files, the tool
# with its man page, and the documentation with the examples' sources.
# dpkg-shlibdeps (Debian dpkg-dev) works out the run-time dependencies.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vesk-transport)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Transport-support module of a DDS library: C library, headers and tool")
set(CPACK_PACKAGE_DESCRIPTION
    "Installs an application's own transport plugins on a DDS domain participant, builds the builtin UDPv4, UDPv4 WAN, UDPv6 and shared-memory transports from property lists, and reads the statistics of running UDP transports. Shared and static libraries with a C interface, headers, CMake package, pkg-config files and the vesk-transport command-line tool.")
set(CPACK_PACKAGE_CONTACT "vesk_transport maintainers <maintainers@vesk-transport.invalid>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# Linking the static library needs the C++ runtime's development files
# (libstdc++.so); the shared library does not.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "libstdc++-dev, pkgconf")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)
