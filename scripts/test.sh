#!/usr/bin/env bash
# Installs what is missing, builds every variant and runs every test; ends with one count line.
#
# Steps: native g++ build with its unit tests and the black-box suite of its daemon; clang
# build; clang ASan+UBSan and TSan builds with their unit tests and the daemon's whole cycles;
# the mipsel cross build with its unit tests under qemu-mipsel-static; the builds as for the
# appliance (native and mipsel, C library only, the mipsel one within its size budget); musl
# builds, the native one with the whole black-box suite, the mipsel one with its unit tests
# under qemu; USB sticks in test machines of x86_64 and MIPS; every fuzz target briefly; the
# README's demonstration.
# A failing step does not stop the later ones; any failure fails the run.
set -uo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh || exit 1

results=build-results
rm -rf "$results"
mkdir -p "$results"
jobs=$(nproc)
reports=()
failed_steps=()

step() {
    local name=$1
    shift
    echo "==== $name"
    if ! "$@"; then
        failed_steps+=("$name")
    fi
}

# configure, build and test one preset; its CTest report lands in build-results/<preset>.xml
cmake_variant() {
    local preset=$1 run_tests=${2:-yes}
    cmake --preset "$preset" >/dev/null &&
        cmake --build --preset "$preset" -j "$jobs" >"$results/build-$preset.log" 2>&1 ||
        { tail -n 40 "$results/build-$preset.log"; return 1; }
    grep -h 'bytes stripped' "$results/build-$preset.log" | sed 's/^/  /' || true
    [ "$run_tests" = yes ] || return 0
    reports+=("$results/ctest-$preset.xml")
    ctest --preset "$preset" -j "$jobs" --output-junit "$PWD/$results/ctest-$preset.xml"
}

# The tests attach loop devices of fixed numbers. A run that was killed can leave its test
# images attached (their paths tell them: pytest's directories); they would be busy now.
losetup -n -O NAME,BACK-FILE 2>/dev/null | awk '$2 ~ /\/pytest-(of-[^\/]+|tmp)\// { print $1 }' |
    xargs -r -n 1 losetup -d
host_before=$(scripts/sandbox/host-state --loops)

step "native (g++)" cmake_variant default
step "hardened (g++), with the black-box suite" cmake_variant hardened
step "clang++ build" cmake_variant clang no
step "AddressSanitizer + UBSan (clang++)" cmake_variant asan
step "ThreadSanitizer (clang++)" cmake_variant tsan
step "mipsel-linux-gnu under qemu" cmake_variant mipsel
# The programs' link checks (C library only, no C++ runtime, the appliance's size budget) fail
# these builds when they do not hold.
step "release build (native, as for the appliance)" cmake_variant release no
step "appliance build (mipsel-release, size budget)" cmake_variant mipsel-release no
step "musl, static, with the black-box suite" cmake_variant musl
step "mipsel musl under qemu" cmake_variant mipsel-musl

# Real kernels with real USB sticks: a test machine of x86_64 with the native build, one of
# MIPS Malta with the appliance build (scripts/vm/).
reports+=("$results/vm.xml")
step "test machines (x86_64, MIPS Malta)" /usr/bin/python3 -m pytest -q -p no:cacheprovider \
    tests/vm --junitxml="$results/vm.xml"

# Every fuzz target for a few seconds from its seeds and regression inputs (fuzz/run.sh runs
# them as long as asked).
step "fuzz targets (clang++, ASan+UBSan)" bash fuzz/run.sh --seconds 3

# The README's demonstration, against the native build (a character device node stands for the
# ROM device that -f wants, bound at /dev/kteeprom inside the sandbox only).
demonstration() {
    [ -c build/kteeprom ] || mknod build/kteeprom c 1 3
    scripts/sandbox/run --eeprom build/kteeprom -- bash scripts/demo.sh "$PWD/build/daemon/hotplugd" \
        "$PWD/build/client/hotplugctl" >"$results/demo.log" 2>&1 ||
        { tail -n 40 "$results/demo.log"; return 1; }
    tail -n 1 "$results/demo.log"
}
step "demonstration" demonstration

host_after=$(scripts/sandbox/host-state --loops)
if [ "$host_before" != "$host_after" ]; then
    echo "the host's mounts, loop devices or fixed paths changed during the tests:"
    diff <(echo "$host_before") <(echo "$host_after")
    failed_steps+=("host unchanged")
fi

echo "==== summary"
/usr/bin/python3 scripts/summarize.py "${reports[@]}"
summary=$?
if [ "${#failed_steps[@]}" -gt 0 ]; then
    echo "failed steps: ${failed_steps[*]}"
    exit 1
fi
exit "$summary"
