# Static build for the appliance's MIPS against musl: the mipsel cross compilers with the specs
# of Debian's musl-dev:mipsel; tests run under qemu-mipsel-static.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(HOTPLUGD_MUSL_TRIPLET mipsel-linux-musl)
set(cxx_headers /usr/mipsel-linux-gnu/include/c++/VERSION
                /usr/mipsel-linux-gnu/include/c++/VERSION/mipsel-linux-gnu)
set(kernel_headers /usr/mipsel-linux-gnu/include/linux /usr/mipsel-linux-gnu/include/asm
                   /usr/mipsel-linux-gnu/include/asm-generic)
include(${CMAKE_CURRENT_LIST_DIR}/musl.cmake)

set(CMAKE_FIND_ROOT_PATH /usr/mipsel-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel-static)
