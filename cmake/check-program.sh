#!/bin/sh
# check-program NM READELF STRIP PROGRAM BUDGET: fails when PROGRAM carries the C++ exception
# runtime, needs a shared library other than the C library, or (BUDGET > 0) is bigger stripped.
set -u
nm=$1 readelf=$2 strip=$3 program=$4 budget=$5
name=$(basename "$program")

runtime=$("$nm" "$program" 2>/dev/null |
    grep -E ' (__cxa_throw|__cxa_begin_catch|__cxa_allocate_exception|__cxa_demangle|__gxx_personality_v[0-9]+|_Unwind_[A-Za-z_]+|__cxa_guard_acquire)$')
if [ -n "$runtime" ]; then
    echo "$name carries the C++ runtime:" >&2
    echo "$runtime" >&2
    exit 1
fi

# Only the C library, its loader and (older C libraries) the separate threads library.
needed=$("$readelf" -d "$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
    grep -Ev '^(libc\.so\.[0-9]+|libpthread\.so\.[0-9]+|ld-linux[-a-z0-9_.]*\.so\.[0-9]+|ld\.so\.1|libc\.musl-[a-z0-9_]+\.so\.1)$')
if [ -n "$needed" ]; then
    echo "$name needs more than the C library: $needed" >&2
    exit 1
fi

if [ "$budget" -gt 0 ]; then
    stripped=$(mktemp)
    "$strip" -o "$stripped" "$program" || { rm -f "$stripped"; exit 1; }
    size=$(stat -c %s "$stripped")
    rm -f "$stripped"
    if [ "$size" -gt "$budget" ]; then
        echo "$name is $size bytes stripped, over its budget of $budget (cmake/program.cmake)" >&2
        exit 1
    fi
    echo "$name: $size bytes stripped (budget $budget)"
fi
