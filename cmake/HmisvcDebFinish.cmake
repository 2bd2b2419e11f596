# CPack post-build step for the Debian packages: what CPack's DEB generator
# cannot express or gets wrong.
# - Packages named in CPACK_HMISVC_MULTIARCH_SAME (and their -dbgsym) get
#   "Multi-Arch: same".
# - Those in CPACK_HMISVC_LDCONFIG_TRIGGER run ldconfig by dpkg trigger
#   instead of the maintainer scripts CPack writes to call it.
# - A -dbgsym package lists its files in md5sums by their staging paths;
#   they become package paths, and its documentation directory points to
#   the package it belongs to, as Debian's own -dbgsym packages do.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  if(NOT deb MATCHES "\\.d?deb$")
    continue()
  endif()
  execute_process(COMMAND dpkg-deb -f ${deb} Package OUTPUT_VARIABLE package
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX REPLACE "-dbgsym$" "" owner "${package}")
  set(tree ${deb}.tree)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb -R ${deb} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  if(owner IN_LIST CPACK_HMISVC_MULTIARCH_SAME)
    file(READ ${tree}/DEBIAN/control control)
    string(REGEX REPLACE "(Architecture: [^\n]*\n)" "\\1Multi-Arch: same\n" control "${control}")
    file(WRITE ${tree}/DEBIAN/control "${control}")
  endif()
  if(package IN_LIST CPACK_HMISVC_LDCONFIG_TRIGGER)
    file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
    file(WRITE ${tree}/DEBIAN/triggers "activate-noawait ldconfig\n")
  endif()
  if(NOT owner STREQUAL package)
    file(READ ${tree}/DEBIAN/md5sums sums)
    string(REGEX REPLACE "  /[^\n]*/${package}[^/]*/" "  " sums "${sums}")
    string(REGEX REPLACE "  /[^\n]*-dbgsym/" "  " sums "${sums}")
    file(WRITE ${tree}/DEBIAN/md5sums "${sums}")
    file(MAKE_DIRECTORY ${tree}/usr/share/doc)
    file(CREATE_LINK ${owner} ${tree}/usr/share/doc/${package} SYMBOLIC)
  endif()
  execute_process(COMMAND dpkg-deb --root-owner-group -Zxz -b ${tree} ${deb}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
