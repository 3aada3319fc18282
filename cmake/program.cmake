# What the two programs may carry onto the appliance: the C library and POSIX threads, nothing of
# the C++ runtime, and (in the appliance build) no more bytes than the budget below.

# Stripped sizes in bytes of the appliance build (mipsel-release). The appliance's flash is
# counted in kilobytes: a budget only ever moves down, unless the commit that raises it says why.
set(HOTPLUGD_BUDGET_hotplugd 65536)
set(HOTPLUGD_BUDGET_hotplugctl 65536)

# CMake hands a program linked by the C driver the C++ driver's own libraries too (libstdc++,
# libm, libgcc_s): none of them, the C driver brings the C library and libgcc itself. Only
# programs of mixed languages are linked that way here, so the tests (linked as C++) keep theirs.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")

option(HOTPLUGD_SIZE_BUDGET "Fail the build when a stripped program exceeds its budget" OFF)

# Marks `target` as one of the shipped programs: linked by the C compiler's driver, so that no
# C++ run-time library is linked at all (a call into one is an undefined symbol and fails the
# link), then checked for what a link can still bring in unasked: the unwinder, the C++
# personality routine, the demangler, any shared library besides the C library.
function(hotplugd_program target)
    set_target_properties(${target} PROPERTIES LINKER_LANGUAGE C)
    # The sanitizers' own run-time libraries unwind and demangle for their reports.
    if(HOTPLUGD_SANITIZE)
        return()
    endif()
    set(budget 0)
    if(HOTPLUGD_SIZE_BUDGET)
        set(budget ${HOTPLUGD_BUDGET_${target}})
    endif()
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND sh ${PROJECT_SOURCE_DIR}/cmake/check-program.sh ${CMAKE_NM} ${CMAKE_READELF}
                ${CMAKE_STRIP} $<TARGET_FILE:${target}> ${budget}
        VERBATIM)
endfunction()
