# Cross build for the appliance: 32-bit MIPS little-endian, Debian's mipsel-linux-gnu toolchain,
# linked against the shared C library as on the appliance (the mipsel preset adds -static).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)

set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)

set(CMAKE_FIND_ROOT_PATH /usr/mipsel-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# qemu-user runs the programs; a dynamic one finds the mipsel C library and its loader there.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel-static -L /usr/mipsel-linux-gnu)
