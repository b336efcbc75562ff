# Two Debian packages, made by `cpack` or scripts/package: libzynpsp-14 has the component Runtime,
# libzynpsp-14-dev the component Development.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zynpsp)
set(CPACK_PACKAGE_VENDOR "the libzynpsp maintainers")
set(CPACK_PACKAGE_CONTACT "${CPACK_PACKAGE_VENDOR}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own below
set(CPACK_VERBATIM_VARIABLES ON)
# Installed as if into /usr, so that paths that contain the prefix come out right.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL Runtime Development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SOURCE zynpsp)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzynpsp-14)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"platform-support library of a database engine
One C interface over the operating system: memory tags with four allocators,
locks, events and threads, files and directories, text streams, logging,
formatting, UTF-8, binary streams, time and random numbers.
.
This package has the shared library that programs need to run.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzynpsp-14-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libzynpsp-14 (= ${PROJECT_VERSION}), libc6-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "cmake, gdb, pkg-config")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"platform-support library of a database engine (development)
One C interface over the operating system: memory tags with four allocators,
locks, events and threads, files and directories, text streams, logging,
formatting, UTF-8, binary streams, time and random numbers.
.
This package has what is needed to build programs on the library and to debug
them: headers, the static library, files for CMake and pkg-config, guides, and
the library's debug information.")

# CPack knows only names like libx.so.1 and would run ldconfig from scripts.
file(CONFIGURE OUTPUT debian/shlibs
  CONTENT "libzynpsp 14 libzynpsp-14 (>= ${PROJECT_VERSION})\n")
file(CONFIGURE OUTPUT debian/triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/debian/shlibs ${PROJECT_BINARY_DIR}/debian/triggers)

set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/DebianTree.cmake)
set(CPACK_PSP_SOURCE_DIR ${PROJECT_SOURCE_DIR})
set(CPACK_PSP_DOCDIR ${CMAKE_INSTALL_DOCDIR})
set(CPACK_PSP_LIBDIR ${CMAKE_INSTALL_LIBDIR})
set(CPACK_PSP_OBJCOPY ${CMAKE_OBJCOPY})
set(CPACK_PSP_STRIP ${CMAKE_STRIP})
set(CPACK_PSP_READELF ${CMAKE_READELF})
include(CPack)
