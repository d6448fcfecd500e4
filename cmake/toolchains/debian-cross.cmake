# Shared part of the Debian cross toolchain files: the triplet's cross compiler, the
# target's multiarch libraries, and qemu-user to run what is built. Set
# CFGUPGRADE_TRIPLET and CFGUPGRADE_QEMU before including it.
set(CMAKE_SYSTEM_NAME Linux)

set(CMAKE_C_COMPILER ${CFGUPGRADE_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${CFGUPGRADE_TRIPLET}-g++)

# Debian installs the target's libraries, headers and CMake package files under "/"
# beside the host's, in directories named after the triplet: "/" is the sysroot, and
# the library architecture picks the target's directories inside it.
set(CMAKE_LIBRARY_ARCHITECTURE ${CFGUPGRADE_TRIPLET})
set(CMAKE_FIND_ROOT_PATH /usr/${CFGUPGRADE_TRIPLET} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must answer for the target, never with the host's .pc files.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${CFGUPGRADE_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Every test runs the target's binaries through the emulator: ctest, test discovery,
# and the tests that start the tool as a process. -L finds the cross toolchain's
# loader and C++ runtime.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CFGUPGRADE_QEMU} -L /usr/${CFGUPGRADE_TRIPLET})
