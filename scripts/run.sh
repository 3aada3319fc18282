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
echo "Support library (native release and mipsel):"
size build-release/lib/libkt.a | awk 'NR == 1 || /\.o$/ || /\.a\)/'
ls -l build-release/lib/libkt.a build-mipsel/lib/libkt.a
echo
echo "The library's C headers, compiled as C and called from a C program for the appliance:"
file build-mipsel/tests/unit/test_c_headers | cut -d, -f1-2
qemu-mipsel-static build-mipsel/tests/unit/test_c_headers && echo "  ran under qemu-mipsel-static: ok"
echo
echo "Run every test with: bash scripts/test.sh"
