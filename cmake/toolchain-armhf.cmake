# The device build: 32-bit ARM, hard float, glibc (Debian's
# crossbuild-essential-armhf). Pointers are 32 bits, so the 32-bit binder
# protocol is the default; libasound is opened from /usr/lib/libasound.so as on
# the device. Programs (the unit tests) run on the host under qemu-arm (package
# qemu-user) with the cross toolchain's loader and libraries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# The cross toolchain's own tree, and / for the multiarch armhf packages
# (libinih-dev:armhf) in /usr/lib/arm-linux-gnueabihf. Their static archives
# are preferred: the device (and the ARM test guest, which sees only the
# cross toolchain's libraries) has no copy of them.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf /)
# (Read after CMake's platform files, which set the suffixes themselves.)
set(CMAKE_USER_MAKE_RULES_OVERRIDE ${CMAKE_CURRENT_LIST_DIR}/prefer-static-libraries.cmake)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# GCC notes that passing some structs changed ABI in GCC 7; nothing here is
# linked against code built before that.
set(CMAKE_C_FLAGS_INIT -Wno-psabi)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
# The library path keeps the loader from the host's cache and multiarch
# directories (lib32 copies, libc6:armhf of another build), which crash it.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf -E LD_LIBRARY_PATH=/usr/arm-linux-gnueabihf/lib)
