# Installation: headers, the library, a CMake package (hmisvc::hmisvc), a
# pkg-config file and the Debian packages built from them with CPack.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The tools, added after this file, go with the library.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME runtime)

install(TARGETS hmisvc EXPORT hmisvcTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/hmisvc
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/hmisvc/config.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hmisvc COMPONENT dev)

set(HMISVC_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/hmisvc)
install(EXPORT hmisvcTargets NAMESPACE hmisvc::
  DESTINATION ${HMISVC_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/hmisvcConfig.cmake.in
  ${PROJECT_BINARY_DIR}/hmisvcConfig.cmake
  INSTALL_DESTINATION ${HMISVC_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/hmisvcConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/hmisvcConfig.cmake ${PROJECT_BINARY_DIR}/hmisvcConfigVersion.cmake
  DESTINATION ${HMISVC_CMAKE_DIR} COMPONENT dev)

# pkg-config: the prefix is found from the file's own place, so that an
# install moved elsewhere (cmake --install --prefix, a package root) works.
file(RELATIVE_PATH HMISVC_PC_TO_PREFIX
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" HMISVC_PC_TO_PREFIX "${HMISVC_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/hmisvc.pc.in ${PROJECT_BINARY_DIR}/hmisvc.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/hmisvc.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
