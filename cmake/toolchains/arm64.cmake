# 64-bit ARM: Debian's g++-aarch64-linux-gnu with arm64 libraries.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CFGUPGRADE_TRIPLET aarch64-linux-gnu)
set(CFGUPGRADE_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
