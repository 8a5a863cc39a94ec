# Installation: the library with its versioned soname, its headers under
# include/dravinhold in the repository's layout (with the generated message
# headers), a CMake package giving dravinhold::dravinhold, a pkg-config file,
# the operator's tool, and the stand-in of the agent's common library. CPack
# turns the components into Debian packages.

include(CMakePackageConfigHelpers)

set(DRAVINHOLD_INCLUDE_DEST "${CMAKE_INSTALL_INCLUDEDIR}/dravinhold")
set(DRAVINHOLD_CMAKE_DEST "${CMAKE_INSTALL_LIBDIR}/cmake/dravinhold")

# The agent's common library lies in /opt/zerla/lib on an agent's host; the
# stand-in is installed next to the library.
set_target_properties(dravinhold PROPERTIES INSTALL_RPATH "/opt/zerla/lib;$ORIGIN")
set_target_properties(dravinholdctl PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

install(TARGETS dravinhold EXPORT dravinholdTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime NAMELINK_COMPONENT development)

# persistence/testing holds the test-only seams: not part of the interface.
install(DIRECTORY persistence nix
  DESTINATION ${DRAVINHOLD_INCLUDE_DEST}
  COMPONENT development
  FILES_MATCHING PATTERN "*.h"
  PATTERN "testing" EXCLUDE)
install(DIRECTORY "${CMAKE_BINARY_DIR}/generated/dravinhold"
  DESTINATION ${DRAVINHOLD_INCLUDE_DEST}
  COMPONENT development
  FILES_MATCHING PATTERN "*.pb.h")

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

configure_file(cmake/dravinhold.pc.in "${CMAKE_BINARY_DIR}/dravinhold.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/dravinhold.pc"
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)

install(TARGETS dravinholdctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)

# In the CMake package too: the installed headers call the common library.
install(TARGETS zerla_common EXPORT dravinholdTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT standin)
install(DIRECTORY zerla_common/include/
  DESTINATION ${DRAVINHOLD_INCLUDE_DEST}
  COMPONENT standin)

# Debian packages, one per component.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME dravinhold)
set(CPACK_PACKAGE_VENDOR "dravinhold")
set(CPACK_PACKAGE_CONTACT "dravinhold maintainers <dravinhold@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Local stores of a host security agent")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "libdravinhold${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libzerla-common-standin")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME "libdravinhold-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libdravinhold${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libprotobuf-dev, libleveldb-dev, libpoco-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME "dravinhold-tools")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
  "libdravinhold${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libzerla-common-standin")
# The project's own libraries are not installed while the packages are made:
# dpkg-shlibdeps finds them in the build tree, and the dependencies on their
# packages are the explicit ones above.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${CMAKE_BINARY_DIR}" "${CMAKE_BINARY_DIR}/zerla_common")
set(CPACK_DEBIAN_STANDIN_PACKAGE_NAME "libzerla-common-standin")
set(CPACK_DEBIAN_STANDIN_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "libdravinhold.so, the agent's local stores")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers, CMake package and pkg-config file of libdravinhold")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "dravinholdctl, to inspect, verify and repair the stores")
set(CPACK_COMPONENT_STANDIN_DESCRIPTION "Stand-in for the agent's common library, for hosts without the agent")
set(CPACK_COMPONENTS_ALL runtime development tools standin)
include(CPack)
