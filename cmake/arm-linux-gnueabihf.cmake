# Toolchain: ARM, 32 bit, hard float (Debian's armhf).
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(ZEB_TRIPLET arm-linux-gnueabihf)
set(ZEB_DEBIAN_ARCHITECTURE armhf)
set(ZEB_QEMU qemu-arm)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # silences a note about compatibility with GCC before 7
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")
