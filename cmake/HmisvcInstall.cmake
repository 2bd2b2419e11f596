# Installation: headers, the library, a CMake package (hmisvc::hmisvc), a
# pkg-config file and the Debian packages built from them with CPack.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The programs, added after this file, make a package of their own.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tools)

install(TARGETS hmisvc EXPORT hmisvcTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
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

# Debian packages: libhmisvc0 (the library), libhmisvc-dev (headers, CMake
# and pkg-config files), hmisvc-tools (hmisvc, the service manager and the
# simulator). The architecture follows the target, so a cross build for the
# device gives armhf packages.
set(CPACK_PACKAGE_NAME hmisvc)
set(CPACK_PACKAGE_VENDOR hmisvc)
set(CPACK_PACKAGE_CONTACT "hmisvc developers <hmisvc@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "HMI access to the device's system services over binder")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(_hmisvc_deb_arch_amd64 x86_64 AMD64)
set(_hmisvc_deb_arch_i386 i386 i486 i586 i686)
set(_hmisvc_deb_arch_armhf arm armv7 armv7l armv7-a armhf)
set(_hmisvc_deb_arch_arm64 aarch64 arm64)
foreach(arch amd64 i386 armhf arm64)
  if(CMAKE_SYSTEM_PROCESSOR IN_LIST _hmisvc_deb_arch_${arch})
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${arch})
  endif()
endforeach()
if(NOT CPACK_DEBIAN_PACKAGE_ARCHITECTURE AND NOT CMAKE_CROSSCOMPILING)
  execute_process(COMMAND dpkg --print-architecture
    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
set(_hmisvc_deb_version "${PROJECT_VERSION}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libhmisvc${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6, libstdc++6")
# ALSA is opened at run time, for playback only.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "libasound2")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# A shlibs file and ldconfig on install and removal (library packages only).
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libhmisvc-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libhmisvc${PROJECT_VERSION_MAJOR} (= ${_hmisvc_deb_version})")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME hmisvc-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# hmisvc-run boots a guest from Debian's kernel where the host has no binder.
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS
  "qemu-system-x86 | qemu-system-arm, busybox-static, cpio, xz-utils, zstd, binutils")

# The tools' dependencies are known once the tools are configured: a build
# without inih has no simulator.
macro(_hmisvc_cpack)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "libhmisvc${PROJECT_VERSION_MAJOR} (= ${_hmisvc_deb_version}), libc6, libstdc++6")
  if(TARGET hmisvc-devsim)
    string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ", libinih1")
  endif()
  set(CPACK_COMPONENTS_ALL runtime dev)
  if(HMISVC_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
  endif()
  include(CPack)
endmacro()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL _hmisvc_cpack)
