# Static build against musl, the small C library, with the host's compilers and musl's gcc
# specs. HOTPLUGD_MUSL_TRIPLET names musl's multiarch directory (x86_64-linux-musl by default;
# the mipsel toolchain file sets it and the cross compilers before including this).
if(NOT HOTPLUGD_MUSL_TRIPLET)
    set(HOTPLUGD_MUSL_TRIPLET x86_64-linux-musl)
    set(HOTPLUGD_GNU_TRIPLET x86_64-linux-gnu)
    set(CMAKE_C_COMPILER gcc)
    set(CMAKE_CXX_COMPILER g++)
    # libstdc++'s headers of the host compiler.
    set(cxx_headers /usr/include/c++/VERSION /usr/include/${HOTPLUGD_GNU_TRIPLET}/c++/VERSION)
    set(kernel_headers /usr/include/linux /usr/include/asm-generic
                       /usr/include/${HOTPLUGD_GNU_TRIPLET}/asm)
endif()
set(HOTPLUGD_LIBC musl)

# musl's specs file replaces the C library's headers and start files, and with them g++'s own
# header directories: those are given back, and cmake/musl-compat.h supplies the few glibc
# names that libstdc++'s configuration expects. The programs are linked by gcc (see
# cmake/program.cmake), so no libstdc++ goes into them; only the tests link it.
set(specs "-specs /usr/lib/${HOTPLUGD_MUSL_TRIPLET}/musl-gcc.specs")
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpversion OUTPUT_VARIABLE gxx_version
                OUTPUT_STRIP_TRAILING_WHITESPACE)
set(cxx_includes "")
foreach(dir IN LISTS cxx_headers)
    string(REPLACE VERSION ${gxx_version} dir ${dir})
    string(APPEND cxx_includes " -isystem ${dir}")
endforeach()
# musl ships no kernel headers (linux/netlink.h): the C library's own are linked into a folder of
# the build tree, which is searched after musl's, and nothing else of glibc's headers is seen.
set(kernel_include ${CMAKE_BINARY_DIR}/kernel-headers)
file(MAKE_DIRECTORY ${kernel_include})
foreach(dir IN LISTS kernel_headers)
    get_filename_component(name ${dir} NAME)
    if(NOT EXISTS ${kernel_include}/${name})
        file(CREATE_LINK ${dir} ${kernel_include}/${name} SYMBOLIC)
    endif()
endforeach()
set(CMAKE_C_FLAGS_INIT "${specs} -idirafter ${kernel_include}")
set(CMAKE_CXX_FLAGS_INIT
    "${specs} -idirafter ${kernel_include}${cxx_includes} -include ${CMAKE_CURRENT_LIST_DIR}/musl-compat.h")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
