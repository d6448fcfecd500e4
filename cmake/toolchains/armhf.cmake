# 32-bit ARM, hard float: Debian's g++-arm-linux-gnueabihf with armhf libraries.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CFGUPGRADE_TRIPLET arm-linux-gnueabihf)
set(CFGUPGRADE_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
