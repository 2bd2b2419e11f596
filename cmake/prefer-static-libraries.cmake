# find_library takes a static archive before a shared library (see
# toolchain-armhf.cmake).
set(CMAKE_FIND_LIBRARY_SUFFIXES .a .so)
