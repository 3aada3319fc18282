#!/usr/bin/env bash
# The main job: installs what is needed, builds the release binaries and shows what there is.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
jobs=$(nproc)
for preset in release mipsel; do
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$jobs" >/dev/null
done

echo "hotplugd: the daemon's entry point is not built yet; this is what exists so far."
echo
echo "Libraries built so far (text/data/bss per object of the native release build):"
for lib in build-release/lib/libkt.a build-release/config/libhotplugd_config.a \
           build-release/registry/libhotplugd_registry.a; do
    size "$lib" | awk 'NR > 1 { printf "  %-28s %7d %5d %5d\n", $6, $1, $2, $3 }'
done
echo "Archive sizes, native release and mipsel:"
ls -l build-release/*/lib*.a build-mipsel/*/lib*.a | awk '!/gtest/ { printf "  %8d  %s\n", $5, $9 }'
echo
echo "The library's C headers, compiled as C and called from a C program for the appliance:"
file build-mipsel/tests/unit/test_c_headers | cut -d, -f1-2
qemu-mipsel-static build-mipsel/tests/unit/test_c_headers && echo "  ran under qemu-mipsel-static: ok"
echo
echo "Run every test with: bash scripts/test.sh"
