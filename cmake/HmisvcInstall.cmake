# Installation: headers, the library, a CMake package (hmisvc::hmisvc), a
# pkg-config file, man pages, bash completion and the Debian packages built
# from them with CPack.
#
# Libraries go to the multiarch directory (lib/x86_64-linux-gnu,
# lib/arm-linux-gnueabihf) as Debian has them, so that packages of several
# architectures install side by side and a cross build finds the target's
# files under its triplet. config.h differs between the 32- and 64-bit
# protocol builds, so it lives under the triplet too.
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
  set(HMISVC_ARCH_INCLUDEDIR include/${CMAKE_LIBRARY_ARCHITECTURE})
else()
  set(HMISVC_ARCH_INCLUDEDIR include)
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The programs, added after this file, make a package of their own.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tools)
# Installed programs find the library of their own prefix, wherever it is
# (cmake --install --prefix ~/hmisvc needs no LD_LIBRARY_PATH). Targets made
# from here on take it; the library, made before, has none. Under /usr (the
# packages, where Debian allows no such path) the library is on the default
# search path and the path is dropped again: see _hmisvc_cpack below.
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

install(TARGETS hmisvc EXPORT hmisvcTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} ${HMISVC_ARCH_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/hmisvc
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/hmisvc/config.h
  DESTINATION ${HMISVC_ARCH_INCLUDEDIR}/hmisvc COMPONENT dev)

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

# pkg-config: plain paths under the prefix the files are installed to (the
# packages' /usr, or cmake --install --prefix), written at install time.
set(HMISVC_PC_PREFIX "@CMAKE_INSTALL_PREFIX@")
configure_file(${CMAKE_CURRENT_LIST_DIR}/hmisvc.pc.in ${PROJECT_BINARY_DIR}/hmisvc.pc.in @ONLY)
install(CODE "
  file(READ \"${PROJECT_BINARY_DIR}/hmisvc.pc.in\" pc)
  file(CONFIGURE OUTPUT \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/hmisvc.pc\"
    CONTENT \"\${pc}\" @ONLY)
  message(STATUS \"Installing: \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/hmisvc.pc\")"
  COMPONENT dev)

# hmisvc_add_man_page(NAME PROGRAM "what it does"): section 1 page NAME.1.gz
# made with help2man from PROGRAM's --help (a target or a file), installed
# with the tools; skipped when PROGRAM is not built. A cross build runs the
# program through its emulator.
find_program(HMISVC_HELP2MAN help2man)
function(hmisvc_add_man_page name program what)
  if(NOT TARGET ${program} AND NOT EXISTS ${program})
    return()
  elseif(TARGET ${program} AND CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
    message(STATUS "man page ${name}.1 skipped: a cross build without an emulator")
    return()
  elseif(NOT HMISVC_HELP2MAN)
    message(STATUS "man page ${name}.1 skipped: needs help2man")
    return()
  endif()
  # A script runs as it is; a program of a cross build under its emulator.
  set(run ${program})
  set(emulator)
  if(TARGET ${program})
    set(run $<TARGET_FILE:${program}>)
    set(depends ${program})
    string(REPLACE ";" " " emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
  endif()
  # help2man takes the program's name from the file it runs.
  set(dir ${PROJECT_BINARY_DIR}/man)
  file(GENERATE OUTPUT ${dir}/bin/${name}
    CONTENT "#!/bin/sh\nexec ${emulator} ${run} \"$@\"\n"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  add_custom_command(OUTPUT ${dir}/${name}.1.gz
    COMMAND ${HMISVC_HELP2MAN} --no-info --no-discard-stderr --section=1
            --version-string=${PROJECT_VERSION} --name=${what} --output=${dir}/${name}.1 ${dir}/bin/${name}
    COMMAND gzip -9nf ${dir}/${name}.1
    DEPENDS ${depends} ${program} VERBATIM)
  add_custom_target(man-${name} ALL DEPENDS ${dir}/${name}.1.gz)
  install(FILES ${dir}/${name}.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endfunction()

# Debian packages: libhmisvc0 (the library), libhmisvc-dev (headers, CMake
# and pkg-config files), hmisvc-tools (the programs), each with a -dbgsym
# package of detached debug symbols. The architecture follows the target, so
# a cross build for the device gives armhf packages.
set(HMISVC_DEB_MAINTAINER "hmisvc developers <maintainers@hmisvc.org>" CACHE STRING
  "Maintainer field of the Debian packages")
set(CPACK_PACKAGE_NAME hmisvc)
set(CPACK_PACKAGE_VENDOR hmisvc)
set(CPACK_PACKAGE_CONTACT "${HMISVC_DEB_MAINTAINER}")
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
# A Debian revision: the packaging is kept apart from the upstream version.
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(_hmisvc_deb_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(_hmisvc_lib libhmisvc${PROJECT_VERSION_MAJOR})

# Stripped binaries, the symbols in -dbgsym; Depends from dpkg-shlibdeps
# (which finds our own library in the build tree and leaves it to the
# explicit Depends below).
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${_hmisvc_lib})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# ALSA is opened at run time, for playback only.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "libasound2")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "HMI access to the device's system services over binder
libhmisvc gives applications on the HMI operator panel one proxy object per
system service (settings, backlight, Ethernet, Wi-Fi, 4G, network choice,
VNC/frp/VPN, date, system information, beeper) and turns each method into a
synchronous request/reply transaction over the Linux binder driver. It also
sends and receives broadcasts and plays WAV files through ALSA, which it
loads at run time.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libhmisvc-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${_hmisvc_lib} (= ${_hmisvc_deb_version})")
# libhmisvc-testing (hmisvc/testing.h) builds on GoogleTest and RE2.
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "libgtest-dev, libre2-dev, hmisvc-tools")
set(CPACK_COMPONENT_DEV_DESCRIPTION "HMI access to system services over binder - development files
The headers of libhmisvc (the service proxies, records, broadcasts, the media
player and the binder layer's C interface), a CMake package
(find_package(hmisvc) gives hmisvc::hmisvc) and a pkg-config file (hmisvc).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME hmisvc-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${_hmisvc_lib} (= ${_hmisvc_deb_version})")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "HMI system services from the shell, and a simulator to test against
hmisvc calls any method of the device's system services from the shell, with
checked arguments, exit statuses and JSON output, and sends and receives
broadcasts. hmisvc-servicemanager is a binder context manager that answers
service lookups and publications; hmisvc-devsim simulates the device's
services so that applications can be tried on any Linux host with a binder
driver; hmisvc-binderd serves the binder protocol in userspace on hosts
without one.")
# hmisvc-run boots a guest from Debian's kernel where the host has no binder.
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS
  "qemu-system-x86 | qemu-system-arm, busybox-static, cpio, xz-utils, zstd, binutils")

# The QML module (qml/): Debian names Qt 6 QML module packages qml6-module-*.
set(CPACK_DEBIAN_QML_PACKAGE_NAME qml6-module-hmisvc)
set(CPACK_DEBIAN_QML_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_QML_PACKAGE_DEPENDS "${_hmisvc_lib} (= ${_hmisvc_deb_version})")
set(CPACK_COMPONENT_QML_DESCRIPTION "HMI system services for Qt Quick - QML module
The QML module Hmisvc gives Qt Quick pages typed objects for the device's
system services (device information, backlight, beeper, date and time,
Ethernet, 4G modem, Wi-Fi with its scan list as a model, network selection,
remote access, settings, broadcasts). Every call runs off the GUI thread with
a time limit; each object shows whether its service is up and why a call
failed. With it comes hmisvcinspect, a Qt plugin through which the hmisvc
test fixtures inspect a Qt Quick page; it is loaded only when a test's
environment names it.")

# The pytest plugin: pure Python, one package for every architecture.
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-hmisvc)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_DEBUGINFO_PACKAGE OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3:any, python3-pytest, hmisvc-tools (>= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "pytest fixtures for testing HMI applications against the simulated device
A pytest plugin, loaded by pytest by itself once installed: the fixture
hmisvc_device starts the service manager and the simulator once per session
and hands each test a freshly reset device to set, fail, script and watch
(call log, waits for calls, broadcasts); hmisvc_app starts the application
under test, waits for its output and stops it at the end of the test. A
failing test's report shows what the application printed and the calls
that came.")

# Documentation every package carries: copyright and the compressed changelog.
set(_hmisvc_changelog ${PROJECT_BINARY_DIR}/changelog.Debian.gz)
add_custom_command(OUTPUT ${_hmisvc_changelog}
  COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog > ${_hmisvc_changelog}
  DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog)
add_custom_target(hmisvc-changelog ALL DEPENDS ${_hmisvc_changelog})
foreach(component runtime dev tools qml python)
  string(TOUPPER ${component} _c)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${_hmisvc_changelog}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${_c}_PACKAGE_NAME} COMPONENT ${component})
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/packaging/hmisvc-tools.lintian-overrides
  DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME hmisvc-tools COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/hmisvc.bash-completion
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME hmisvc COMPONENT tools)

# CPack cannot write Multi-Arch nor run ldconfig by trigger; a post-build
# step edits the library packages.
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/HmisvcDebFinish.cmake)
set(CPACK_HMISVC_MULTIARCH_SAME ${_hmisvc_lib} libhmisvc-dev qml6-module-hmisvc)
set(CPACK_HMISVC_LDCONFIG_TRIGGER ${_hmisvc_lib})

# The package list is known once the tools are configured.
macro(_hmisvc_cpack)
  # Runs after every other install rule: the programs installed under /usr
  # lose their RPATH.
  install(CODE [[
    if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
      # The manifest lists paths as installed, without the staging root.
      foreach(installed IN LISTS CMAKE_INSTALL_MANIFEST_FILES)
        set(file "$ENV{DESTDIR}${installed}")
        if(file MATCHES "/bin/[^/]+$" AND NOT IS_SYMLINK "${file}")
          file(READ "${file}" magic LIMIT 4 HEX)
          if(magic STREQUAL "7f454c46")
            file(RPATH_REMOVE FILE "${file}")
          endif()
        endif()
      endforeach()
    endif()]] COMPONENT tools)
  set(CPACK_COMPONENTS_ALL runtime dev)
  if(HMISVC_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tools python)
  endif()
  if(TARGET hmisvcqml)
    list(APPEND CPACK_COMPONENTS_ALL qml)
  endif()
  include(CPack)
endmacro()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL _hmisvc_cpack)
