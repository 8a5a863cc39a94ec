# Runs after CPack has made the Debian packages (CPACK_POST_BUILD_SCRIPTS),
# on each of them: finishes what CPack's DEB generator leaves undone, then
# builds the package again with dpkg-deb.
#
# - CPack gives every package with a library under /usr/lib a postinst and a
#   postrm that call ldconfig. Debian runs ldconfig through its trigger, which
#   the library packages activate (cmake/debian/ldconfig/triggers), so the
#   scripts that call ldconfig are dropped; a package left without a postrm
#   is gone entirely after "dpkg -r".
# - CPack's -dbgsym packages list their files in md5sums by their paths in
#   the build tree, and carry no copyright or changelog. Their md5sums are
#   made anew, and /usr/share/doc/<package>-dbgsym points at the documentation
#   of the package whose binaries it holds, as Debian's own debug packages do.

find_program(DRAVINHOLD_DPKG_DEB dpkg-deb REQUIRED)

foreach(package_file IN LISTS CPACK_PACKAGE_FILES)
  set(tree "${package_file}.tree")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND "${DRAVINHOLD_DPKG_DEB}" --raw-extract "${package_file}" "${tree}"
    COMMAND_ERROR_IS_FATAL ANY)

  foreach(script postinst postrm)
    if(EXISTS "${tree}/DEBIAN/${script}")
      file(READ "${tree}/DEBIAN/${script}" script_text)
      if(script_text MATCHES "ldconfig")
        file(REMOVE "${tree}/DEBIAN/${script}")
      endif()
    endif()
  endforeach()

  file(STRINGS "${tree}/DEBIAN/control" package_line REGEX "^Package: ")
  string(REGEX REPLACE "^Package: " "" package "${package_line}")
  if(package MATCHES "^(.+)-dbgsym$")
    file(MAKE_DIRECTORY "${tree}/usr/share/doc")
    file(CREATE_LINK "${CMAKE_MATCH_1}" "${tree}/usr/share/doc/${package}" SYMBOLIC)

    file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE "${tree}" "${tree}/*")
    list(FILTER files EXCLUDE REGEX "^DEBIAN/")
    list(SORT files)
    set(md5sums "")
    foreach(file IN LISTS files)
      if(NOT IS_SYMLINK "${tree}/${file}")
        file(MD5 "${tree}/${file}" sum)
        string(APPEND md5sums "${sum}  ${file}\n")
      endif()
    endforeach()
    file(WRITE "${tree}/DEBIAN/md5sums" "${md5sums}")
  endif()

  execute_process(COMMAND "${DRAVINHOLD_DPKG_DEB}" --root-owner-group --build "${tree}" "${package_file}"
    OUTPUT_QUIET
    COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${tree}")
endforeach()
