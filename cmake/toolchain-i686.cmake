# 32-bit x86 build on an amd64 host (Debian's g++-i686-linux-gnu): the way
# to exercise the 32-bit binder protocol without the device.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_FIND_ROOT_PATH /usr/i686-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# The programs (tests, and GoogleTest's discovery of them) run on the host
# directly where its kernel executes 32-bit x86 programs (libc6-i386 brings
# the loader), and under qemu-i386 with the cross toolchain's loader and
# libraries where it does not ("Exec format error"). A tiny program decides,
# once per configure; try_compile projects need no emulator.
get_property(_hmisvc_in_try_compile GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT _hmisvc_in_try_compile)
  set(_hmisvc_probe ${CMAKE_BINARY_DIR}/CMakeFiles/i686-probe)
  file(WRITE ${_hmisvc_probe}.c "int main(void) { return 0; }\n")
  execute_process(COMMAND ${CMAKE_C_COMPILER} ${_hmisvc_probe}.c -o ${_hmisvc_probe}
                  RESULT_VARIABLE _hmisvc_built OUTPUT_QUIET ERROR_QUIET)
  execute_process(COMMAND ${_hmisvc_probe} RESULT_VARIABLE _hmisvc_ran OUTPUT_QUIET ERROR_QUIET)
  if(NOT _hmisvc_built EQUAL 0)
    message(FATAL_ERROR "${CMAKE_C_COMPILER} cannot build a program (package g++-i686-linux-gnu)")
  elseif(_hmisvc_ran EQUAL 0)
    set(HMISVC_I686_RUNS "directly" CACHE INTERNAL "How the build's 32-bit x86 programs run")
  else()
    find_program(HMISVC_QEMU_I386 qemu-i386)
    if(NOT HMISVC_QEMU_I386)
      message(FATAL_ERROR "This kernel cannot execute 32-bit x86 programs and qemu-i386 "
                          "(package qemu-user) is missing")
    endif()
    # The library path keeps the loader from the host's cache, which names
    # libc6-i386's copies: a libc of another build than this loader hangs.
    set(CMAKE_CROSSCOMPILING_EMULATOR ${HMISVC_QEMU_I386} -L /usr/i686-linux-gnu
        -E LD_LIBRARY_PATH=/usr/i686-linux-gnu/lib)
    set(HMISVC_I686_RUNS "under qemu-i386 (this kernel cannot execute them)"
        CACHE INTERNAL "How the build's 32-bit x86 programs run")
  endif()
  message(STATUS "32-bit x86 programs run ${HMISVC_I686_RUNS}")
endif()
