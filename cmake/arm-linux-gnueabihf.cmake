# Toolchain: ARM, 32 bit, hard float (Debian's armhf).
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(ZEB_TRIPLET arm-linux-gnueabihf)
set(ZEB_DEBIAN_ARCHITECTURE armhf)
set(ZEB_QEMU qemu-arm)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # a note on compilers before GCC 7, none of which this needs to meet
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")
