# What `cmake --install` puts where, in two components: Runtime is what a program needs to run,
# Development what else is needed to build one. All places are relative, so the whole may be moved.
include(CMakePackageConfigHelpers)

set(PSP_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/zynpsp-14)

# The libraries and the headers.
install(TARGETS zynpsp EXPORT zynpspTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime
  INCLUDES DESTINATION ${PSP_INSTALL_INCLUDEDIR})
install(TARGETS zynpsp_static
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)
install(DIRECTORY include/ DESTINATION ${PSP_INSTALL_INCLUDEDIR} COMPONENT Development
  FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

# The CMake package: zynpsp::zynpsp and zynpsp::static.
set(PSP_INSTALL_PACKAGEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/zynpsp)
set_target_properties(zynpsp_static_file PROPERTIES EXPORT_NAME static)
install(TARGETS zynpsp_static_file EXPORT zynpspTargets
  INCLUDES DESTINATION ${PSP_INSTALL_INCLUDEDIR})
install(EXPORT zynpspTargets NAMESPACE zynpsp:: FILE zynpspConfig.cmake
  DESTINATION ${PSP_INSTALL_PACKAGEDIR} COMPONENT Development)
write_basic_package_version_file(zynpspConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zynpspConfigVersion.cmake
  DESTINATION ${PSP_INSTALL_PACKAGEDIR} COMPONENT Development)

# pkg-config's file.
file(RELATIVE_PATH PSP_PREFIX_FROM_PKGCONFIG
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
cmake_path(APPEND PSP_PC_LIBDIR "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND PSP_PC_INCLUDEDIR "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
configure_file(cmake/zynpsp-14.pc.in zynpsp-14.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zynpsp-14.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# gdb's commands. It looks for them under its data directory and the full path of the library, which
# only the installation knows.
install(CODE "
  cmake_path(APPEND libdir \"\${CMAKE_INSTALL_PREFIX}\" \"${CMAKE_INSTALL_LIBDIR}\")
  cmake_path(APPEND datadir \"\${CMAKE_INSTALL_PREFIX}\" \"${CMAKE_INSTALL_DATADIR}\")
  file(INSTALL \"${PROJECT_SOURCE_DIR}/scripts/gdb/zynpsp.py\"
    DESTINATION \"\${datadir}/gdb/auto-load\${libdir}\"
    TYPE FILE RENAME libzynpsp-14.so-gdb.py)"
  COMPONENT Development)

# The guides, as they refer to one another.
install(FILES LICENSE README.md CONTRIBUTING.md CHANGELOG.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Development)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Development
  FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN reference EXCLUDE)

if(PROJECT_IS_TOP_LEVEL)
  include(cmake/Debian.cmake)
endif()
