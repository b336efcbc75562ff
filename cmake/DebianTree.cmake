# Run by CPack between installing the two components and packing them: turns what was installed into
# what a Debian package holds. CPACK_TEMPORARY_DIRECTORY has the trees Runtime and Development.
set(runtime ${CPACK_TEMPORARY_DIRECTORY}/Runtime/usr)
set(development ${CPACK_TEMPORARY_DIRECTORY}/Development/usr)
find_program(GZIP gzip REQUIRED)

function(psp_run)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
  set(output "${output}" PARENT_SCOPE)
endfunction()

# The library goes without its debug information, which the development package has where gdb looks
# for it: under the build's number.
set(library ${runtime}/${CPACK_PSP_LIBDIR}/libzynpsp-14.so)
psp_run(${CPACK_PSP_READELF} -n ${library})
if(NOT output MATCHES "Build ID: ([0-9a-f][0-9a-f])([0-9a-f]+)")
  message(FATAL_ERROR "${library} has no build number")
endif()
set(debug_file ${development}/lib/debug/.build-id/${CMAKE_MATCH_1}/${CMAKE_MATCH_2}.debug)
cmake_path(GET debug_file PARENT_PATH directory)
file(MAKE_DIRECTORY ${directory})
psp_run(${CPACK_PSP_OBJCOPY} --only-keep-debug --compress-debug-sections ${library} ${debug_file})
psp_run(${CPACK_PSP_STRIP} --strip-unneeded -R .comment ${library})
psp_run(${CPACK_PSP_OBJCOPY} --add-gnu-debuglink=${debug_file} ${library})
psp_run(${CPACK_PSP_STRIP} --strip-debug -R .comment -D
  ${development}/${CPACK_PSP_LIBDIR}/libzynpsp-14.a)

# What the library needs at run time. CPack would ask the same tool, but then also call ldconfig
# from scripts, where a trigger is enough. The tool wants to be in the tree of a source package.
set(package ${CPACK_TEMPORARY_DIRECTORY}/Runtime)
file(MAKE_DIRECTORY ${package}/DEBIAN)
file(WRITE ${package}/debian/control "")
execute_process(COMMAND dpkg-shlibdeps -O ${library} WORKING_DIRECTORY ${package}
  OUTPUT_VARIABLE output OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
file(REMOVE_RECURSE ${package}/DEBIAN ${package}/debian)
string(REPLACE "shlibs:Depends=" "" CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${output}")

# Each package has its documents in a directory of its own name.
cmake_path(APPEND documents ${development} ${CPACK_PSP_DOCDIR})
file(RENAME ${documents} ${CPACK_TEMPORARY_DIRECTORY}/documents)
file(MAKE_DIRECTORY ${development}/share/doc)
file(RENAME ${CPACK_TEMPORARY_DIRECTORY}/documents ${development}/share/doc/libzynpsp-14-dev)
file(REMOVE ${development}/share/doc/libzynpsp-14-dev/LICENSE
  ${development}/share/doc/libzynpsp-14-dev/CHANGELOG.md)
foreach(place ${runtime}/share/doc/libzynpsp-14 ${development}/share/doc/libzynpsp-14-dev)
  configure_file(${CPACK_PSP_SOURCE_DIR}/LICENSE ${place}/copyright COPYONLY)
  configure_file(${CPACK_PSP_SOURCE_DIR}/CHANGELOG.md ${place}/changelog COPYONLY)
  psp_run(${GZIP} -9n ${place}/changelog)
endforeach()

# Everybody may read all of it, whatever umask the sources were fetched and the trees made under.
file(CHMOD_RECURSE ${runtime} ${development}
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
  DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
