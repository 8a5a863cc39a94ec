# Installation: the library with its versioned soname, its headers under
# include/dravinhold in the repository's layout (with the generated message
# headers), a CMake package giving dravinhold::dravinhold, a pkg-config file,
# the operator's tool, and the stand-in of the agent's common library. CPack
# turns the components into Debian packages.
#
# Libraries go to the multiarch directory (lib/x86_64-linux-gnu) for every
# prefix: a prefix install and the packages lay out alike.

include(CMakePackageConfigHelpers)

set(DRAVINHOLD_INCLUDE_DEST "${CMAKE_INSTALL_INCLUDEDIR}/dravinhold")
set(DRAVINHOLD_CMAKE_DEST "${CMAKE_INSTALL_LIBDIR}/cmake/dravinhold")
set(DRAVINHOLD_PACKAGING_DIR "${CMAKE_BINARY_DIR}/packaging")

# In a prefix install the stand-in lies next to the library, and the agent's
# common library in /opt/zerla/lib on an agent's host.
set_target_properties(dravinhold PROPERTIES INSTALL_RPATH "/opt/zerla/lib;$ORIGIN")
set_target_properties(dravinholdctl PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

# dravinhold_package_without_rpath(<target> <destination> <component>)
#
# The packages carry no run-time path: Debian's loader finds the libraries in
# the multiarch directory, and the package that provides zerla-common makes
# its library known to the loader. CPack installs with DRAVINHOLD_PACKAGING
# set (CPACK_CUSTOM_INSTALL_VARIABLES below).
function(dravinhold_package_without_rpath target destination component)
  install(CODE "
    if(DRAVINHOLD_PACKAGING)
      file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${destination}/$<TARGET_FILE_NAME:${target}>\")
    endif()"
    COMPONENT ${component})
endfunction()

file(MAKE_DIRECTORY "${DRAVINHOLD_PACKAGING_DIR}")

# dravinhold_gzip(<source> <compressed>): compresses at configure time, with
# maximum compression and no time stamp, as Debian's tools compress
# documentation.
function(dravinhold_gzip source compressed)
  execute_process(
    COMMAND gzip -9 -n -c "${source}"
    OUTPUT_FILE "${compressed}"
    RESULT_VARIABLE gzip_result)
  if(NOT gzip_result EQUAL 0)
    message(FATAL_ERROR "gzip could not compress ${source}")
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${source}")
endfunction()

# dravinhold_package_docs(<component> <package>)
#
# Every Debian package carries the copyright file and the Debian changelog in
# /usr/share/doc/<package>; a prefix install has no use for them.
set(DRAVINHOLD_DEB_CHANGELOG "${DRAVINHOLD_PACKAGING_DIR}/changelog.Debian.gz")
dravinhold_gzip("${CMAKE_CURRENT_LIST_DIR}/debian/changelog" "${DRAVINHOLD_DEB_CHANGELOG}")
function(dravinhold_package_docs component package)
  install(CODE "
    if(DRAVINHOLD_PACKAGING)
      file(INSTALL
        \"${CMAKE_CURRENT_FUNCTION_LIST_DIR}/debian/copyright\"
        \"${DRAVINHOLD_DEB_CHANGELOG}\"
        DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}\"
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    endif()"
    COMPONENT ${component})
endfunction()

# The library.
install(TARGETS dravinhold EXPORT dravinholdTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime NAMELINK_COMPONENT development)
dravinhold_package_without_rpath(dravinhold ${CMAKE_INSTALL_LIBDIR} runtime)

# Its headers. The test-only seams (persistence/testing) are not part of the
# interface.
install(DIRECTORY persistence nix
  DESTINATION ${DRAVINHOLD_INCLUDE_DEST}
  COMPONENT development
  FILES_MATCHING PATTERN "*.h"
  PATTERN "testing" EXCLUDE)
install(DIRECTORY "${CMAKE_BINARY_DIR}/generated/dravinhold"
  DESTINATION ${DRAVINHOLD_INCLUDE_DEST}
  COMPONENT development
  FILES_MATCHING PATTERN "*.pb.h")

# The CMake package.
install(EXPORT dravinholdTargets
  NAMESPACE dravinhold::
  DESTINATION ${DRAVINHOLD_CMAKE_DEST}
  COMPONENT development)
configure_package_config_file(cmake/dravinholdConfig.cmake.in
  "${CMAKE_BINARY_DIR}/dravinholdConfig.cmake"
  INSTALL_DESTINATION ${DRAVINHOLD_CMAKE_DEST})
write_basic_package_version_file("${CMAKE_BINARY_DIR}/dravinholdConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${CMAKE_BINARY_DIR}/dravinholdConfig.cmake"
  "${CMAKE_BINARY_DIR}/dravinholdConfigVersion.cmake"
  DESTINATION ${DRAVINHOLD_CMAKE_DEST}
  COMPONENT development)

# The pkg-config file names the prefix it is installed under, as a plain path:
# pkg-config prints paths as they are written, and a prefix found from the
# file's own place would show as ".../pkgconfig/../../..". The prefix is known
# only when installing ("cmake --install --prefix", or /usr for the packages,
# which CPack installs with DESTDIR), so it is written in then.
set(DRAVINHOLD_INSTALL_PREFIX "@DRAVINHOLD_INSTALL_PREFIX@")
configure_file(cmake/dravinhold.pc.in "${DRAVINHOLD_PACKAGING_DIR}/dravinhold.pc.in" @ONLY)
# Installs into different places may run at once (the tests do): each
# writes its file in a directory of its own.
install(CODE "
  file(READ \"${DRAVINHOLD_PACKAGING_DIR}/dravinhold.pc.in\" pc_text)
  string(REPLACE \"@DRAVINHOLD_INSTALL_PREFIX@\" \"\${CMAKE_INSTALL_PREFIX}\" pc_text \"\${pc_text}\")
  string(MD5 pc_dir \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\")
  set(pc_dir \"${DRAVINHOLD_PACKAGING_DIR}/pc/\${pc_dir}\")
  file(WRITE \"\${pc_dir}/dravinhold.pc\" \"\${pc_text}\")
  file(INSTALL \"\${pc_dir}/dravinhold.pc\"
    DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\")"
  COMPONENT development)

# The operator's tool, with its manual page.
install(TARGETS dravinholdctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
dravinhold_package_without_rpath(dravinholdctl ${CMAKE_INSTALL_BINDIR} tools)
dravinhold_gzip("${CMAKE_SOURCE_DIR}/tools/dravinholdctl/dravinholdctl.1"
  "${DRAVINHOLD_PACKAGING_DIR}/dravinholdctl.1.gz")
install(FILES "${DRAVINHOLD_PACKAGING_DIR}/dravinholdctl.1.gz"
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
  COMPONENT tools)

# The stand-in of the agent's common library, and its headers on their own.
# In the CMake package too: the installed headers call the common library.
install(TARGETS zerla_common EXPORT dravinholdTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT standin NAMELINK_COMPONENT standin_development)
install(DIRECTORY zerla_common/include/
  DESTINATION ${DRAVINHOLD_INCLUDE_DEST}
  COMPONENT standin_development)

# Debian packages, one per component, each with a -dbgsym package of the
# debugging information split off its binaries.
set(DRAVINHOLD_DEB_VERSION "${PROJECT_VERSION}-1")
set(DRAVINHOLD_DEB_LIBRARY "libdravinhold${PROJECT_VERSION_MAJOR}")
set(DRAVINHOLD_DEB_STANDIN "libzerla-common-standin1")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME dravinhold)
set(CPACK_PACKAGE_VENDOR "Dravinhold Maintainers")
set(CPACK_PACKAGE_CONTACT "Dravinhold Maintainers <maintainers@dravinhold.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_CUSTOM_INSTALL_VARIABLES "DRAVINHOLD_PACKAGING=ON")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools standin standin_development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE dravinhold)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The project's own libraries are not installed while the packages are made:
# dpkg-shlibdeps finds them in the build tree, and the dependencies on their
# packages are the explicit ones below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${CMAKE_BINARY_DIR}" "${CMAKE_BINARY_DIR}/zerla_common")
# A shlibs file in each library package, so that dpkg-shlibdeps gives a
# program linked with the library a dependency on its package.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The debugging information goes to <package>-dbgsym, and the binaries are
# stripped as it is split off. CPACK_STRIP_FILES would strip them before
# CPack sees them, and there would be nothing left to split.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_STRIP_FILES OFF)
# Finishes what CPack leaves undone (cmake/DravinholdDebFinish.cmake): the
# ldconfig trigger instead of CPack's ldconfig scripts, and the -dbgsym
# packages' md5sums and documentation.
set(CPACK_POST_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/DravinholdDebFinish.cmake")

# The library: needs the common library, the real one or the stand-in.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "${DRAVINHOLD_DEB_LIBRARY}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "zerla-common")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${CMAKE_CURRENT_LIST_DIR}/debian/ldconfig/triggers")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "local stores of a host security agent
libdravinhold keeps what the processes of a host security agent must know
about files and policy across restarts: six typed key-value stores over
LevelDB with protocol-buffer records. A damaged store is repaired or
recreated under running callers, without a restart.

This package holds the shared library.")
dravinhold_package_docs(runtime "${DRAVINHOLD_DEB_LIBRARY}")

# What a program needs to build against the library: its headers name
# LevelDB, protobuf and POCO Foundation types (libpoco-dev is the only Debian
# package with POCO's headers), and the common library's.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME "libdravinhold-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${DRAVINHOLD_DEB_LIBRARY} (= ${DRAVINHOLD_DEB_VERSION}), libprotobuf-dev, libleveldb-dev, libsnappy-dev, libpoco-dev, zerla-common-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "local stores of a host security agent (development files)
libdravinhold keeps what the processes of a host security agent must know
about files and policy across restarts: six typed key-value stores over
LevelDB with protocol-buffer records.

This package holds the headers, with the generated protocol-buffer headers,
the CMake package (find_package(dravinhold)) and the pkg-config file.")
dravinhold_package_docs(development libdravinhold-dev)

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME "dravinhold-tools")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
  "${DRAVINHOLD_DEB_LIBRARY} (= ${DRAVINHOLD_DEB_VERSION}), zerla-common")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
  "operator's tool for the stores of libdravinhold
dravinholdctl lists the stores of libdravinhold on a host, prints and
exports their records decoded, verifies every block, shows the enrichment
store's order of use, and repairs or imports a store that no process holds
open. Inspection reads a private copy and never changes a store.")
dravinhold_package_docs(tools dravinhold-tools)

# The stand-in: provides the virtual package zerla-common, which the agent's
# real common library satisfies otherwise, and makes the default data root.
set(CPACK_DEBIAN_STANDIN_PACKAGE_NAME "${DRAVINHOLD_DEB_STANDIN}")
set(CPACK_DEBIAN_STANDIN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_STANDIN_PACKAGE_PROVIDES "zerla-common")
set(CPACK_DEBIAN_STANDIN_PACKAGE_CONTROL_EXTRA
  "${CMAKE_CURRENT_LIST_DIR}/debian/ldconfig/triggers"
  "${CMAKE_CURRENT_LIST_DIR}/debian/standin/postinst")
set(CPACK_DEBIAN_STANDIN_DESCRIPTION
  "stand-in for the common library of a host security agent
libzerla_common.so.1 with just the interfaces that libdravinhold imports:
store paths under $ZERLA_DATA_ROOT (default /var/lib/zerla, which this
package creates), POCO loggers writing to standard error, the diagnostic
context, directory sizes and process name normalisation.

Install it on a host without the agent; the agent's own common library
provides zerla-common in its place.")
dravinhold_package_docs(standin "${DRAVINHOLD_DEB_STANDIN}")

set(CPACK_DEBIAN_STANDIN_DEVELOPMENT_PACKAGE_NAME "libzerla-common-standin-dev")
set(CPACK_DEBIAN_STANDIN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_STANDIN_DEVELOPMENT_PACKAGE_PROVIDES "zerla-common-dev")
set(CPACK_DEBIAN_STANDIN_DEVELOPMENT_PACKAGE_DEPENDS
  "${DRAVINHOLD_DEB_STANDIN} (= ${DRAVINHOLD_DEB_VERSION})")
set(CPACK_DEBIAN_STANDIN_DEVELOPMENT_DESCRIPTION
  "stand-in for the common library of a host security agent (development files)
The headers of the stand-in for the agent's common library (path
configuration, loggers, diagnostic context, directory sizes, name
normalisation) under /usr/include/dravinhold, where libdravinhold's headers
find them.")
dravinhold_package_docs(standin_development libzerla-common-standin-dev)

include(CPack)
