# Toolchain: ARM, 64 bit (Debian's arm64).
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(ZEB_TRIPLET aarch64-linux-gnu)
set(ZEB_DEBIAN_ARCHITECTURE arm64)
set(ZEB_QEMU qemu-aarch64)
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")
